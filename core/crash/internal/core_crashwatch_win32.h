#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace NS_CORE {

// Decides when to abandon a report. It counts looks and reads no clock, so the time for which a machine sleeps does not
// count.
class Standstill {
public:
    static constexpr DWORD kLooks = 10;

    // Call it kLooks times in the length of the patience. Returns true when `progress`, which changes with all that is
    // achieved, has been the same at the last kLooks looks, or when all looks together have taken ten times the
    // patience.
    bool isReached(uint64_t progress) {
        m_looks = progress == m_progress ? m_looks + 1 : 0;
        m_progress = progress;
        return m_looks == kLooks || ++m_allLooks == 10 * kLooks;
    }

private:
    uint64_t m_progress = 0;
    DWORD m_looks = 0;
    DWORD m_allLooks = 0;
};

// The size of an open file; 0 without one.
uint64_t sizeOfFile(HANDLE file);

// Watches from outside while this process writes the dump of its own crash. The system's writer suspends all other
// threads, so a watchdog among them does not run meanwhile.
//
// The watcher is a second process of this program, without a window. It does its work in the first initialiser and ends
// there, so it opens no log, no socket and no service. A word in its command line and the numbers behind it name the
// handles that it inherits. The same from elsewhere names none, and is ignored.
class CrashWatch {
public:
    // Prepares what start() needs. Call it before the fault.
    void prepare();

    // Starts the watcher, if that is possible, and returns without waiting for it. The watcher ends this process with
    // exitCode when neither the process's memory nor the dump has changed for g_crashPatienceMs. Memory counts because
    // the system's writer first reads all modules, and on a busy machine that takes longer. The watcher ends when this
    // process ends.
    // dump  INVALID_HANDLE_VALUE if there is no file; it stays the caller's.
    void start(HANDLE dump, UINT exitCode);

    // Ends the watcher, so that it does not keep the dump's file open any longer.
    void end();

    // Any thread may call it.
    bool isRunning() const { return ::WaitForSingleObject(m_watcher, 0) == WAIT_TIMEOUT; }

private:
    std::wstring m_program;                 // with its full path
    std::atomic<HANDLE> m_watcher{nullptr}; // open until this process has ended
};

} // namespace NS_CORE
