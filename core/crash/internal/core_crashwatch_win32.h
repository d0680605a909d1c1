#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "core/memory/core_scopedhandle_win32.h"

namespace NS_CORE {

// Says when something has made no progress for too long. Counts looks, not the clock: a machine that slept meanwhile
// has not used up the patience.
class Standstill {
public:
    static constexpr DWORD kLooks = 10;

    // To be called every kLooks-th part of the patience. progress grows with everything that is achieved. Returns
    // whether it has been the same at the last kLooks looks.
    bool isReached(uint64_t progress) {
        m_looks = progress == m_progress ? m_looks + 1 : 0;
        m_progress = progress;
        return m_looks == kLooks;
    }

private:
    uint64_t m_progress = 0;
    DWORD m_looks = 0;
};

// The size of an open file; 0 without one.
uint64_t sizeOfFile(HANDLE file);

// Watches from outside while this process writes the dump of its own crash. The system's writer suspends all other
// threads, so a watchdog among them does not run meanwhile.
//
// The watcher is a second process of this program, without a window. It does its work in the first initialiser and ends
// there, so it opens no log, no socket and no service. A variable in its environment names the handles that it
// inherits. A variable of that name from elsewhere names none, and is ignored.
class CrashWatch {
public:
    // Before the fault: makes what the start needs.
    void prepare();

    // Starts the watcher, if that is possible, and returns without waiting for it. The watcher ends this process with
    // exitCode when the dump has not grown for g_crashPatienceMs. It ends when this process ends.
    // dump  INVALID_HANDLE_VALUE if there is no file; it stays the caller's.
    void start(HANDLE dump, UINT exitCode);

    // Ends the watcher, so that it does not keep the dump's file open any longer.
    void end();

private:
    std::wstring m_program;     // with its full path
    std::wstring m_commandLine; // the program alone, in quotes
    std::wstring m_environment; // this process's, and the variable without its value
    size_t m_value = 0;         // where the value goes
    ScopedKernelHandle m_watcher;
};

} // namespace NS_CORE
