#pragma once

#include <cstdint>

namespace NS_UTL {

// Attaches a program of the graphical subsystem, which begins without a console, to the console of the program that
// started it. If the parent has none, nothing happens. Otherwise, while this object lives,
// - standard output and standard error go to it, each unless it goes to a file, a pipe or the null device already;
// - the console reads output in the process's own code page (UTF-8 for a program with the manifest). At the end it gets
//   its former code page back, unless somebody has changed it meanwhile;
// - Ctrl+C reaches this process, even if its parent had switched that off, as `start /b` does.
// Install handlers for console events afterwards: the system may forget earlier ones.
//
// Create one object per process, at its beginning, before other threads. Nothing is logged.
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
