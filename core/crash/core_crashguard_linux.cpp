#include "core/crash/core_crashguard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/crash/internal/core_crashreport.h"
#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/stack/core_stacktrace_linux.h"
#include "core/text/core_pathseparator.h"
#include "core/text/core_varargs.h"

// The signal handler walks the stack, writes the addresses to the dump with plain system calls, and jumps back into
// guard. There, in an ordinary context, the dump is written once more with names, and the log and the history get their
// lines. If memory is so broken that one of these steps faults or hangs, the report continues with the next; the
// addresses are on the disk already.

namespace NS_CORE {

namespace {

constexpr std::array kFaultSignals = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kMaxDumpedFrames = 256;
// Enough for the handler, the unwinder and what the sanitizers add to both.
constexpr size_t kSignalStack = 256 * 1024;

// What the report does next.
enum class Step : int { None, DumpNames, Log, History, Done };

// step  not Done, as every caller knows; the analyser does not.
Step after(Step step) {
    return static_cast<Step>(static_cast<int>(step) + 1); // NOLINT(clang-analyzer-optin.core.EnumCastOutOfRange)
}

struct Fault {
    int signal;
    int code;
    uintptr_t address;
    size_t frameCount;
    std::array<RawFrame, kMaxDumpedFrames> frames;
    int dumpError; // errno, 0 when the dump is written
};

// The handler of the faults' signals, and an alternate stack on which it can run when the thread's own overflows.
class FaultHandlers {
public:
    using Handler = void (*)(int signal, siginfo_t* info, void* context);

    explicit FaultHandlers(Handler handler) : m_stack(std::make_unique_for_overwrite<std::byte[]>(kSignalStack)) {
        stack_t stack{};
        stack.ss_sp = m_stack.get();
        stack.ss_size = kSignalStack;
        ::sigaltstack(&stack, &m_stackBefore);
        struct sigaction action{};
        action.sa_sigaction = handler;
        // A fault of the handler itself must call it again; otherwise the process would end on the spot.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
        for (const int signal : kFaultSignals) ::sigaction(signal, &action, &m_actionsBefore[signal]);
    }
    ~FaultHandlers() {
        for (const int signal : kFaultSignals) restore(signal);
        ::sigaltstack(&m_stackBefore, nullptr);
    }
    // Restores the signal's earlier handler.
    void restore(int signal) const { ::sigaction(signal, &m_actionsBefore[signal], nullptr); }

    FaultHandlers(const FaultHandlers&) = delete;
    FaultHandlers& operator=(const FaultHandlers&) = delete;

private:
    std::unique_ptr<std::byte[]> m_stack;
    stack_t m_stackBefore{};
    struct sigaction m_actionsBefore[NSIG]{}; // by signal
};

pid_t threadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// Restarts the timer, whose signal means that the report has made no progress for too long. alarm is async-signal-safe,
// which setitimer is not, but it counts whole seconds only.
void noteProgress() {
    ::alarm((g_crashPatienceMs + 999) / 1000);
}

// Returns 0, or errno.
int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        noteProgress();
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return 0;
}

// Appends the memory map, by which addresses can be assigned to modules later. Returns 0, or errno of writing.
int copyMaps(int fd) {
    const ScopedFd maps(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = ::read(maps.get(), buffer.data(), buffer.size());
        if (count <= 0) return 0;
        if (const int error = writeAll(fd, {buffer.data(), static_cast<size_t>(count)}); error != 0) return error;
    }
}

int createDump(const char* path) {
    return ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

// Async-signal-safe. Returns 0, or errno.
int dumpAddresses(const CrashNames& names, const Fault& fault) {
    ::mkdir(names.dumpsDirectory.c_str(), 0755);
    const ScopedFd dump(createDump(names.dumpFile.c_str()));
    if (!dump) return errno;
    FixedText head;
    head << "signal " << static_cast<uintptr_t>(fault.signal) << " at address " << fault.address << "\n";
    int error = writeAll(dump.get(), head.view());
    for (size_t index = 0; index < fault.frameCount && error == 0; ++index) {
        FixedText line;
        line << fault.frames[index].programCounter << "\n";
        error = writeAll(dump.get(), line.view());
    }
    return error != 0 ? error : copyMaps(dump.get());
}

// Removes the handler's own frames, which precede the interrupted one: the first that is no return address.
void removeHandlerFrames(Fault& fault) {
    const std::span all(fault.frames.data(), fault.frameCount);
    const auto interrupted = std::ranges::find(all, false, &RawFrame::isReturnAddress);
    if (interrupted == all.end()) return;
    fault.frameCount = static_cast<size_t>(std::copy(interrupted, all.end(), all.begin()) - all.begin());
}

std::string dumpText(const CrashNames& names, const Fault& fault) {
    std::vector<StackFrame> frames;
    for (size_t index = 0; index < fault.frameCount; ++index) {
        describeFrames(&fault.frames[index], 1, frames, LineLookup::Quick);
        noteProgress();
    }
    std::string text = formatString("%s %s\nSIG%s (code %d) at address 0x%x\n", names.name.view(), names.version,
                                    ::sigabbrev_np(fault.signal), fault.code, fault.address);
    for (const std::string& line : traceLines(frames, /*discarded=*/0, kPathSeparator)) formatInto(text, "%s\n", line);
    return text + '\n';
}

// Writes the dump again, with names. Keeps the addresses if the names cannot be found out.
void dumpNames(const CrashNames& names, Fault& fault) {
    if (fault.dumpError != 0) return;
    const std::string text = dumpText(names, fault);
    const ScopedFd dump(createDump(names.dumpFile.c_str()));
    if (!dump) {
        fault.dumpError = errno;
        return;
    }
    fault.dumpError = writeAll(dump.get(), text);
    if (fault.dumpError == 0) fault.dumpError = copyMaps(dump.get());
}

// The guard of this process, with all that a fault must find prepared. Never destroyed: its handlers are needed until
// the process has ended.
class CrashGuard {
public:
    static CrashGuard& instance() {
        static NeverDestroyed<CrashGuard> guard;
        return *guard;
    }

    int run(int argc, char** argv, ApplicationMain applicationMain);

private:
    // Restores the earlier handlers when the application returns or throws.
    struct Guarding {
        Guarding() { instance().begin(); }
        ~Guarding() { instance().end(); }
        Guarding(const Guarding&) = delete;
        Guarding& operator=(const Guarding&) = delete;
    };

    void begin();
    void end();
    static void onFault(int signal, siginfo_t* info, void* context);
    static void onNoProgress(int signal);
    void passOn(int signal, const siginfo_t& info);
    static void limitReport();
    void beginStep(Step step);
    [[noreturn]] void continueWithNextStep();
    void doStep(Step step);
    void report();

    std::atomic<pid_t> m_thread{0}; // the guarded one
    std::string m_program;
    sigjmp_buf m_resume;
    std::atomic<Step> m_step{Step::None};
    CrashNames m_names;
    Fault m_fault{};
    std::optional<FaultHandlers> m_handlers;
};

int CrashGuard::run(int argc, char** argv, ApplicationMain applicationMain) {
    const Guarding guarding;
    // savemask=1: the handler leaves by siglongjmp, which must restore the signal mask.
    if (sigsetjmp(m_resume, /*savemask=*/1) == 0) return applicationMain(argc, argv);
    // Goes on here after the fault, and again when a step of the report faults. The jump has restored the mask that the
    // guard found, and that may block the timer's signal.
    limitReport();
    report();
    return kCrashResult;
}

// Prepares what the handler must not do itself: it makes the names, and uses the unwinder once, which loads it.
void CrashGuard::begin() {
    m_program = runningProgramName();
    m_names = crashNames(m_program);
    m_fault.frameCount = walkRaw(m_fault.frames.data(), 1);
    m_step = Step::None;
    m_thread = threadId();
    m_handlers.emplace(&onFault);
}

// After a fault the handlers stay, because another fault on the way out must not change how the process ends.
void CrashGuard::end() {
    if (m_step != Step::None) return;
    m_handlers.reset();
}

void CrashGuard::onFault(int signal, siginfo_t* info, void* /*context*/) {
    CrashGuard& guard = instance();
    if (guard.m_thread != threadId()) return guard.passOn(signal, *info);
    if (guard.m_step != Step::None) guard.continueWithNextStep();
    Fault& fault = guard.m_fault;
    fault.signal = signal;
    fault.code = info->si_code;
    fault.address = reinterpret_cast<uintptr_t>(info->si_addr);
    fault.dumpError = EFAULT; // until dumpAddresses succeeds
    limitReport();
    guard.beginStep(Step::DumpNames);
    fault.frameCount = walkRaw(fault.frames.data(), fault.frames.size());
    removeHandlerFrames(fault);
    guard.m_names = crashNames(guard.m_program);
    fault.dumpError = dumpAddresses(guard.m_names, fault);
    ::siglongjmp(guard.m_resume, 1);
}

// Leaves the fault to the signal's earlier handler.
void CrashGuard::passOn(int signal, const siginfo_t& info) {
    if (m_handlers) m_handlers->restore(signal);
    // A faulting instruction runs and faults again; a signal that was sent has to be raised again.
    if (info.si_code <= 0) ::raise(signal);
}

void CrashGuard::limitReport() {
    struct sigaction action{};
    action.sa_handler = &onNoProgress;
    ::sigaction(SIGALRM, &action, nullptr);
    sigset_t alarm{};
    sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
}

// The limit of the last step is that of the way out of the process.
void CrashGuard::beginStep(Step step) {
    m_step = step;
    noteProgress();
}

// Makes the report abandon what it waits for, for example another thread's lock. The signal is sent to the process, and
// any thread may receive it. After the report any thread may be on the way out of the process, too.
void CrashGuard::onNoProgress(int signal) {
    CrashGuard& guard = instance();
    if (guard.m_thread == threadId() || guard.m_step == Step::Done) guard.continueWithNextStep();
    ::syscall(SYS_tgkill, ::getpid(), guard.m_thread.load(), signal);
}

// A step of the report faulted or hung: abandons it and continues with the next.
void CrashGuard::continueWithNextStep() {
    const Step step = m_step;
    if (step == Step::Done) ::_exit(kCrashResult & 0xff);
    beginStep(after(step));
    ::siglongjmp(m_resume, 1);
}

void CrashGuard::doStep(Step step) {
    switch (step) {
        case Step::DumpNames:
            return dumpNames(m_names, m_fault);
        case Step::Log:
            return logDump(m_names, m_fault.dumpError == 0
                                        ? std::nullopt
                                        : std::optional(systemErrorText(static_cast<uint32_t>(m_fault.dumpError))));
        case Step::History:
            return appendToHistory(m_names);
        case Step::None:
        case Step::Done:
            return;
    }
}

void CrashGuard::report() {
    while (m_step != Step::Done) {
        const Step step = m_step;
        doStep(step);
        beginStep(after(step));
    }
}

} // namespace

int guard(int argc, char** argv, ApplicationMain applicationMain) {
    if (isGuardSwitchedOff(argc, argv)) return applicationMain(argc, argv);
    return CrashGuard::instance().run(argc, argv, applicationMain);
}

} // namespace NS_CORE
