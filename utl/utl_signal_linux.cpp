#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>

#include "core/memory/core_neverdestroyed.h"
#include "utl/utl_signal_platform.h"

namespace NS_UTL {
namespace {

// Signal numbers go through the pipe as one byte each; 0 is no signal and makes the handling thread end.
constexpr int32_t kSignalLimit = NSIG;
static_assert(kSignalLimit <= 256);
constexpr uint8_t kEnd = 0;

// The writing end, for the system's handler, which may look at nothing but lock-free atomics.
constinit std::atomic<int> g_writeEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

// What the handling thread calls, by signal number.
constinit std::array<std::atomic<Signal::Handler>, kSignalLimit> g_handlers{};

// The system's handler: runs on whatever thread the signal interrupts, in the middle of whatever that thread does.
// Only async-signal-safe calls here. If the pipe is full, 65536 signals already wait, and losing one more changes
// nothing.
void passOn(int signum) {
    const int savedError = errno;
    const auto byte = static_cast<uint8_t>(signum);
    [[maybe_unused]] const ssize_t written = ::write(g_writeEnd.load(std::memory_order_relaxed), &byte, 1);
    errno = savedError;
}

void handleSignals(int readEnd) {
    uint8_t byte = kEnd;
    for (;;) {
        // Not interrupted, because this thread blocks all signals.
        if (::read(readEnd, &byte, 1) != 1 || byte == kEnd) return;
        const Signal::Handler handler = g_handlers[byte].load();
        if (handler) handler(byte);
    }
}

// The handling thread and its pipe, shared by all Signal objects: the first one starts the thread, the last one ends
// it. The pipe stays open for the life of the process, because a system handler that is still running on another
// thread may write to it after the last object has ended. Without a lock: Signal objects are created and destroyed on
// one thread.
class Dispatcher {
public:
    // False when the system refuses the pipe.
    [[nodiscard]] bool acquire() {
        if (!openPipe()) return false;
        if (m_users++ == 0) startThread();
        return true;
    }

    void release() {
        if (--m_users > 0) return;
        writeEnd();
        m_thread.join();
    }

private:
    bool openPipe() {
        if (m_readEnd != -1) return true;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return false;
        // Only the writing end must not block: it is used inside the system's handler.
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        m_readEnd = ends[0];
        g_writeEnd.store(ends[1]);
        return true;
    }

    // The new thread blocks all signals, so that none interrupts a handler that waits in a system call.
    void startThread() {
        sigset_t all;
        sigset_t before;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        m_thread = std::thread(&handleSignals, m_readEnd);
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    // Retries while the pipe is full, because this byte must arrive.
    static void writeEnd() {
        while (::write(g_writeEnd.load(), &kEnd, 1) != 1) std::this_thread::yield();
    }

    int m_readEnd = -1; // never closed on purpose, like the writing end
    uint32_t m_users = 0;
    std::thread m_thread;
};

// Never destroyed: a process that exits in the middle of console mode leaves the thread waiting.
NS_CORE::NeverDestroyed<Dispatcher> g_dispatcher;

// The process's action for a signal before the first object for it.
std::array<struct sigaction, kSignalLimit> g_actionsBefore;

// The last object to end waits for the handling thread, which finds the handler gone for every signal that is left.
void dropHandler(size_t index, Signal::Handler previous) {
    g_handlers[index].store(previous);
    g_dispatcher->release();
}

} // namespace

bool signal_platform::install(int32_t signum, Signal::Handler handler, Signal::Handler& previous) {
    struct sigaction current;
    // Asks the system first whether there is such a signal.
    if (::sigaction(signum, nullptr, &current) != 0 || !g_dispatcher->acquire()) return false;
    const auto index = static_cast<size_t>(signum);
    previous = g_handlers[index].exchange(handler);
    struct sigaction action = {};
    action.sa_handler = &passOn;
    // A system call that the signal interrupts goes on.
    action.sa_flags = SA_RESTART;
    // A second object for the same signal finds our own action installed.
    const bool isInstalled = previous || ::sigaction(signum, &action, &g_actionsBefore[index]) == 0;
    if (!isInstalled) dropHandler(index, previous);
    return isInstalled;
}

bool signal_platform::restore(int32_t signum, Signal::Handler previous) {
    const auto index = static_cast<size_t>(signum);
    const bool isRestored = previous || ::sigaction(signum, &g_actionsBefore[index], nullptr) == 0;
    dropHandler(index, previous);
    return isRestored;
}

} // namespace NS_UTL
