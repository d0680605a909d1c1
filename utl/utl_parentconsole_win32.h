#pragma once

#include <cstdint>

namespace NS_UTL {

// Attaches a program of the graphical subsystem, which begins without a console, to the console of the program that
// started it. Where the parent has none, nothing happens. With a console, while this object lives,
// - standard output and standard error go to it, each unless it goes to a file, a pipe or the null device already;
// - the console takes the bytes in the process's own code page (UTF-8 for a program with the manifest), and gets its
//   own code page back at the end, unless somebody has changed it meanwhile;
// - Ctrl+C reaches this process, also where its parent had switched that off, as `start /b` does.
// Handlers for console events are to be installed afterwards: the system may forget earlier ones.
//
// One object per process, at its beginning, before other threads; nothing is logged.
class ParentConsole {
public:
    ParentConsole();
    ~ParentConsole();
    ParentConsole(const ParentConsole&) = delete;
    ParentConsole& operator=(const ParentConsole&) = delete;

private:
    // The console's code page to put back; 0: none.
    uint32_t m_codePageBefore = 0;
};

} // namespace NS_UTL
