#pragma once

namespace NS_UTL {

class ProcessUtils {
public:
    // How a start ended.
    enum class Result : int {
        Finished = 1,     // the program ran and ended; its exit code is stored
        StillRunning = 3, // the wait ended before the program did; the wait has no limit, so this never occurs
        StartFailed = 4,  // there is no such program or it cannot be run; logged
        NoExitCode = 5,   // the program ended, but the system did not report its exit code
    };

    // Runs a program and waits, without limit, for its end.
    // commandLine  the program and its arguments, UTF-8, separated by blanks; words with blanks stand in double
    //              quotes. A program without a directory is looked for beside the running executable first, then in
    //              the working directory, then where the system looks for programs.
    // exitCode     not null; holds the program's exit code after Finished, and is left alone otherwise. For a
    //              program that a signal ended it is 128 plus the signal's number (Linux).
    // The program has the caller's working directory and environment, no console or terminal, and inherits no handle:
    // on Linux its standard streams are /dev/null and it leads a session of its own, with no signal blocked or ignored.
    // Only StartFailed is logged, at WARN. Any thread; the calling thread sleeps until the program has ended.
    static Result start(const char* commandLine, unsigned long* exitCode);
};

} // namespace NS_UTL
