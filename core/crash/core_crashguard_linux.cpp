#include "core/crash/core_crashguard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/crash/internal/core_crashreport.h"
#include "core/files/core_dir.h"
#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "core/identity/core_paths.h"
#include "core/identity/core_rcsname.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/stack/core_stacktrace_linux.h"
#include "core/stack/core_stacktracetext.h"
#include "core/text/core_pathseparator.h"
#include "core/text/core_varargs.h"

// The fault's handler does what a handler may do and no more: it walks the stack, writes the addresses to the dump
// with plain system calls, and jumps back into guard. There, in an ordinary context again, the dump is written once
// more with names, and the log and the history get their lines. Should memory be so broken that one of these fails or
// hangs, it is left for the next, and the addresses are on the disk already.

namespace NS_CORE {

namespace {

constexpr std::array kFaultSignals = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kMaxDumpedFrames = 256;
// Enough for the handler, the unwinder and the sanitizers' share of both.
constexpr size_t kSignalStack = 256 * 1024;

// What is left to do after a fault; a fault meanwhile goes on with the next, and so does what takes too long.
enum class Step : int { None, DumpNames, Log, History, Done };

struct Fault {
    int signal;
    int code;
    uintptr_t address;
    size_t frameCount;
    std::array<RawFrame, kMaxDumpedFrames> frames;
    int dumpError; // errno, 0 when the dump is written
};

void onFault(int signal, siginfo_t* info, void* context);

// A stack for the handler that outlives an overflow of the thread's own, and the handlers of the faults' signals.
class FaultHandlers {
public:
    FaultHandlers() : m_stack(std::make_unique_for_overwrite<std::byte[]>(kSignalStack)) {
        stack_t stack{};
        stack.ss_sp = m_stack.get();
        stack.ss_size = kSignalStack;
        ::sigaltstack(&stack, &m_stackBefore);
        struct sigaction action{};
        action.sa_sigaction = &onFault;
        // A fault of the handler itself must come to it again, or the process ends on the spot.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
        for (size_t index = 0; index < kFaultSignals.size(); ++index)
            ::sigaction(kFaultSignals[index], &action, &m_actionsBefore[index]);
    }
    ~FaultHandlers() {
        for (size_t index = 0; index < kFaultSignals.size(); ++index)
            ::sigaction(kFaultSignals[index], &m_actionsBefore[index], nullptr);
        ::sigaltstack(&m_stackBefore, nullptr);
    }
    // Gives the signal back to whoever had it before.
    void restore(int signal) const {
        for (size_t index = 0; index < kFaultSignals.size(); ++index) {
            if (kFaultSignals[index] == signal) ::sigaction(signal, &m_actionsBefore[index], nullptr);
        }
    }

    FaultHandlers(const FaultHandlers&) = delete;
    FaultHandlers& operator=(const FaultHandlers&) = delete;

private:
    std::unique_ptr<std::byte[]> m_stack;
    stack_t m_stackBefore{};
    std::array<struct sigaction, kFaultSignals.size()> m_actionsBefore{};
};

// What the handler must find ready: built when guarding begins.
struct Prepared {
    pid_t thread = 0; // 0 while nothing is guarded
    std::string name;
    sigjmp_buf resume;
    std::atomic<Step> step{Step::None};
    Fault fault{};
    std::optional<FaultHandlers> handlers;
};

Prepared& prepared() {
    // The handlers may be needed until the process has ended.
    static NeverDestroyed<Prepared> one;
    return *one;
}

pid_t threadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// Text that is put together without allocating, and cut where it does not fit.
class FixedText {
public:
    FixedText& operator<<(std::string_view text) {
        const size_t count = std::min(text.size(), m_bytes.size() - m_size);
        std::memcpy(m_bytes.data() + m_size, text.data(), count);
        m_size += count;
        return *this;
    }
    FixedText& operator<<(uintptr_t number) {
        std::array<char, 2 * sizeof(number)> digits;
        const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16);
        return *this << "0x" << std::string_view(digits.data(), static_cast<size_t>(end - digits.data()));
    }
    // Null-terminated, with the last byte given up for it when there is no room.
    const char* c_str() {
        m_bytes[std::min(m_size, m_bytes.size() - 1)] = '\0';
        return m_bytes.data();
    }
    std::string_view view() const { return {m_bytes.data(), m_size}; }

private:
    std::array<char, 1024> m_bytes;
    size_t m_size = 0;
};

// 0, or errno.
int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return 0;
}

// Adds what is mapped where, so that addresses can be told apart later. 0, or errno of writing.
int copyMaps(int fd) {
    const ScopedFd maps(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    if (!maps) return 0;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = ::read(maps.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return 0;
        if (const int error = writeAll(fd, {buffer.data(), static_cast<size_t>(count)}); error != 0) return error;
    }
}

int createDump(const char* path) {
    return ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

// Signal-safe. 0, or errno.
int dumpAddresses(const Prepared& process) {
    const Fault& fault = process.fault;
    FixedText directory;
    directory << "./" << getPath(PathKind::Dumps);
    ::mkdir(directory.c_str(), 0755);
    FixedText path;
    path << directory.view() << "/" << process.name << "-" << versionWithBuildId() << ".dmp";
    const ScopedFd dump(createDump(path.c_str()));
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

// The handler's own frames stand before the interrupted one, which no call leads back to.
void leaveOutHandler(Fault& fault) {
    size_t first = 0;
    while (first < fault.frameCount && fault.frames[first].isReturnAddress) ++first;
    if (first == fault.frameCount) return;
    std::copy(fault.frames.begin() + static_cast<std::ptrdiff_t>(first),
              fault.frames.begin() + static_cast<std::ptrdiff_t>(fault.frameCount), fault.frames.begin());
    fault.frameCount -= first;
}

void startLimit() {
    const uint32_t milliseconds = g_crashPatienceMs.load();
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

Step after(Step step) {
    return step == Step::Done ? step : static_cast<Step>(static_cast<int>(step) + 1);
}

// Gives up what the fault has come in the way of, and goes on with the next.
[[noreturn]] void goOnWithNextStep(Prepared& process) {
    const Step step = process.step.load();
    if (step == Step::Done) ::_exit(kCrashResult & 0xff);
    process.step.store(after(step));
    startLimit();
    ::siglongjmp(process.resume, 1);
}

// Whatever it waits for, a lock of another thread for example: the report leaves it.
void onReportHangs(int signal) {
    Prepared& process = prepared();
    if (process.thread == threadId()) goOnWithNextStep(process);
    // The signal is the process's and may come to any thread.
    ::syscall(SYS_tgkill, ::getpid(), process.thread, signal);
}

void limitReport() {
    struct sigaction action{};
    action.sa_handler = &onReportHangs;
    // A limit that was met must not keep the next from being noticed.
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    ::sigaction(SIGALRM, &action, nullptr);
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    startLimit();
}

// Leaves the fault to whoever had the signal before the guard, by letting it come once more.
void passOn(const Prepared& process, int signal, const siginfo_t& info) {
    if (process.handlers) process.handlers->restore(signal);
    // An instruction that faults does so again; a signal that was sent has to be sent again.
    if (info.si_code <= 0) ::raise(signal);
}

void onFault(int signal, siginfo_t* info, void* /*context*/) {
    Prepared& process = prepared();
    if (process.thread != threadId()) return passOn(process, signal, *info);
    if (process.step.load() != Step::None) goOnWithNextStep(process);
    Fault& fault = process.fault;
    fault.signal = signal;
    fault.code = info->si_code;
    fault.address = reinterpret_cast<uintptr_t>(info->si_addr);
    fault.frameCount = 0;
    fault.dumpError = EFAULT; // unless the lines behind the limit come through
    process.step.store(Step::DumpNames);
    limitReport();
    fault.frameCount = walkRaw(fault.frames.data(), fault.frames.size());
    leaveOutHandler(fault);
    fault.dumpError = dumpAddresses(process);
    ::siglongjmp(process.resume, 1);
}

std::string signalName(int signal) {
    const char* const name = ::sigabbrev_np(signal);
    return name != nullptr ? formatString("SIG%s", name) : formatString("%d", signal);
}

std::string dumpText(const CrashNames& names, const Fault& fault) {
    std::vector<StackTrace::Frame> frames;
    frames.reserve(fault.frameCount);
    for (size_t index = 0; index < fault.frameCount; ++index) frames.push_back(describeFrame(fault.frames[index]));
    std::string text = formatString("%s %s\n%s (code %d) at address 0x%x\n", names.name, names.version,
                                    signalName(fault.signal), fault.code, fault.address);
    for (const std::string& line : traceLines(frames, /*discarded=*/0, kPathSeparator)) formatInto(text, "%s\n", line);
    return text + '\n';
}

// The same dump again, with names. The addresses stay where that fails.
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

void doStep(Step step, Fault& fault) {
    const CrashNames names = crashNames();
    switch (step) {
        case Step::DumpNames:
            return dumpNames(names, fault);
        case Step::Log:
            return logDump(names, fault.dumpError == 0
                                      ? std::nullopt
                                      : std::optional(systemErrorText(static_cast<uint32_t>(fault.dumpError))));
        case Step::History:
            return appendToHistory(names);
        case Step::None:
        case Step::Done:
            return;
    }
}

void reportFault(Prepared& process) {
    while (process.step.load() != Step::Done) {
        const Step step = process.step.load();
        startLimit();
        doStep(step, process.fault);
        process.step.store(after(step));
    }
    // From here on for the way out of the process.
    startLimit();
}

// What the handler needs and must not fetch itself: names, and the unwinder, which is loaded by its first use.
void prepare(Prepared& process) {
    std::string executable;
    if (!Dir::getModuleFilename(executable)) executable.clear();
    process.name = crashNames({}, executable, {}, {}, kPathSeparator).name;
    process.step.store(Step::None);
    process.fault.frameCount = walkRaw(process.fault.frames.data(), 1);
    process.thread = threadId();
    process.handlers.emplace();
}

} // namespace

int guard(int argc, char** argv, ApplicationMain applicationMain) {
    if (isGuardSwitchedOff(argc, argv)) return applicationMain(argc, argv);
    Prepared& process = prepared();
    prepare(process);
    // With the signal mask, for the one that the handler is left by.
    if (sigsetjmp(process.resume, /*savemask=*/1) != 0) {
        // Comes here again when the report itself faults. The handlers stay: a fault on the way out of the process
        // must not change how it ends.
        reportFault(process);
        return kCrashResult;
    }
    const int result = applicationMain(argc, argv);
    process.handlers.reset();
    process.thread = 0;
    return result;
}

} // namespace NS_CORE
