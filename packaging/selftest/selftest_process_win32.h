#pragma once

#include <string>

// One test's process.
namespace selftest {

struct Ended {
    bool started = false;
    bool timedOut = false;
    unsigned long exitCode = 0;
    double seconds = 0;
    std::string output; // both streams
};

// Runs a command line in `directory` and waits for its end, at most `limitSeconds`. What it started and left running
// ends with it: both are in one job. `temporary` is the directory for its temporary files. Any thread may call.
Ended runInJob(const std::wstring& commandLine, const std::wstring& directory, const std::wstring& temporary,
               unsigned limitSeconds);

// From now on nothing is started, and what runs is ended. For the console's control handler, on a thread of its own.
void endEverything();
bool isEnding();

} // namespace selftest
