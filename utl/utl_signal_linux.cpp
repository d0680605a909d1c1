#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "utl/utl_signal.h"

namespace NS_UTL {
namespace {

// Signal numbers go through the pipe as one byte each; 0 is no signal and tells the answering thread to end.
constexpr int32_t kSignalLimit = NSIG;
static_assert(kSignalLimit <= 256);
constexpr uint8_t kEnd = 0;

// The writing end, for the system's handler, which may look at nothing but lock-free atomics.
constinit std::atomic<int> g_writeEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

// What the answering thread calls, by signal number.
constinit std::array<std::atomic<Signal::Handler>, kSignalLimit> g_handlers{};

// The system's handler: runs on whatever thread the signal interrupts, in the middle of whatever that thread does.
// Only async-signal-safe calls here. A full pipe means that 65536 signals wait for an answer: one more changes nothing.
void passOn(int signum) {
    const int savedError = errno;
    const auto byte = static_cast<uint8_t>(signum);
    [[maybe_unused]] const ssize_t written = ::write(g_writeEnd.load(std::memory_order_relaxed), &byte, 1);
    errno = savedError;
}

void answer(int readEnd) {
    uint8_t byte = kEnd;
    for (;;) {
        const ssize_t count = ::read(readEnd, &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count != 1 || byte == kEnd) return;
        const Signal::Handler handler = g_handlers[byte].load();
        if (handler) handler(byte);
    }
}

// The answering thread and its pipe, shared by all Signal objects: the first one starts the thread, the last one ends
// it. The pipe stays open for the life of the process, because a system handler that is still on its way on another
// thread may write to it after the last object has ended.
class Dispatcher {
public:
    // False when the system refuses the pipe.
    [[nodiscard]] bool acquire() {
        const absl::MutexLock lock(&m_mutex);
        if (!openPipe()) return false;
        if (m_users++ == 0) startThread();
        return true;
    }

    void release() {
        const absl::MutexLock lock(&m_mutex);
        if (--m_users > 0) return;
        writeEnd();
        m_thread.join();
    }

private:
    bool openPipe() ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex) {
        if (m_readEnd != -1) return true;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return false;
        // Only the writing end must not block: it is used inside the system's handler.
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        m_readEnd = ends[0];
        g_writeEnd.store(ends[1]);
        return true;
    }

    // The thread takes no signals itself: a handler that waits must not be what a signal interrupts.
    void startThread() ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex) {
        sigset_t all;
        sigset_t before;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        m_thread = std::thread(&answer, m_readEnd);
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    // Waits for room: this byte must arrive.
    void writeEnd() ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex) {
        while (::write(g_writeEnd.load(), &kEnd, 1) != 1) std::this_thread::yield();
    }

    absl::Mutex m_mutex;
    int m_readEnd ABSL_GUARDED_BY(m_mutex) = -1; // never closed on purpose, like the writing end
    uint32_t m_users ABSL_GUARDED_BY(m_mutex) = 0;
    std::thread m_thread ABSL_GUARDED_BY(m_mutex);
};

Dispatcher& dispatcher() {
    // Never destroyed: a process that exits in the middle of console mode leaves the thread waiting.
    static Dispatcher& instance = *new Dispatcher;
    return instance;
}

} // namespace

class Signal::PlatformInstallation final : public Signal::Installation {
public:
    // Takes a use of the dispatcher over.
    PlatformInstallation(int32_t signum, Handler previousHandler, const struct sigaction& previousAction)
        : m_signum(signum), m_previousHandler(previousHandler), m_previousAction(previousAction) {}

    PlatformInstallation(const PlatformInstallation&) = delete;
    PlatformInstallation& operator=(const PlatformInstallation&) = delete;
    ~PlatformInstallation() override { dispatcher().release(); }

    bool undo() override {
        const bool restored = ::sigaction(m_signum, &m_previousAction, nullptr) == 0;
        g_handlers[static_cast<size_t>(m_signum)].store(m_previousHandler);
        return restored;
    }

private:
    int32_t m_signum;
    Handler m_previousHandler;
    struct sigaction m_previousAction;
};

std::unique_ptr<Signal::Installation> Signal::install(int32_t signum, Handler handler) {
    if (signum <= 0 || signum >= kSignalLimit || !dispatcher().acquire()) return nullptr;
    std::atomic<Handler>& slot = g_handlers[static_cast<size_t>(signum)];
    const Handler previousHandler = slot.exchange(handler);

    struct sigaction action = {};
    action.sa_handler = &passOn;
    // A system call that the signal interrupts goes on.
    action.sa_flags = SA_RESTART;
    ::sigfillset(&action.sa_mask);
    struct sigaction previousAction = {};
    if (::sigaction(signum, &action, &previousAction) != 0) {
        slot.store(previousHandler);
        dispatcher().release();
        return nullptr;
    }
    return std::make_unique<PlatformInstallation>(signum, previousHandler, previousAction);
}

} // namespace NS_UTL
