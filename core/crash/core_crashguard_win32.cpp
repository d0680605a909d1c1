#include <windows.h>
// dbghelp.h needs windows.h before it.
#include <dbghelp.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "core/crash/core_crashguard.h"
#include "core/crash/internal/core_crashreport.h"
#include "core/crash/internal/core_crashwatch_win32.h"
#include "core/crash/internal/core_lentlocks_win32.h"
#include "core/crash/internal/core_minidumpfile_win32.h"
#include "core/crash/internal/core_seh_win32.h"
#include "core/crash/internal/core_throwsite_win32.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/stack/core_symbollibrary_win32.h"
#include "core/stack/core_symbollock.h"
#include "core/text/core_utf8_win32.h"

// Three threads have a part in a report. The faulting one waits in the exception filter until the dump is written, then
// unwinds and adds the two lines. The writer writes the dump, on a stack of its own. The watchdog ends the process when
// neither makes progress any more.
//
// Writer and watchdog begin before the application does, because a broken process may not be able to start a thread,
// and a thread needs the locks of the loader and the heap to begin. The watchdog calls nothing but the kernel, so that
// no lock can hold it up. The writer needs both locks, and so does a thread that the system's function may begin
// (Wine 10's does). If the faulting thread holds one of them, the writer does not reach the dump in time. The faulting
// thread then lends its locks, and the first of the two that reaches the dump writes it.
//
// The system's writer of dumps suspends all threads but its own, the watchdog too. Meanwhile a second process watches
// (core_crashwatch_win32.h). It is started just before, where the heap and the loader's lock are free.

namespace NS_CORE {

namespace {

// Our own exception codes for endings that the runtime does not raise as structured exceptions: error severity, and the
// bit that marks codes as not Microsoft's.
constexpr DWORD kTerminateCode = 0xE0000001;
constexpr DWORD kAbortCode = 0xE0000002;

// Kept free on the guarded thread's stack, so that its overflow can be handled at all.
constexpr ULONG kStackGuarantee = 64 * 1024;

constexpr SIZE_T kWriterStack = 512 * 1024;
constexpr SIZE_T kWatchdogStack = 64 * 1024;

// The writer has one sixth of g_crashPatienceMs to reach the dump.
constexpr DWORD kShareOfWriter = 6;

// What the faulting thread's own stack must have left for the library's functions.
constexpr size_t kStackForLibrary = 256 * 1024;

// The part of the calling thread's stack that it does not use yet. A stack grows down, to `end`.
struct UnusedStack {
    char* end;
    size_t size;
};

UnusedStack unusedStack() {
    MEMORY_BASIC_INFORMATION stack{};
    ::VirtualQuery(&stack, &stack, sizeof(stack));
    auto* const end = static_cast<char*>(stack.AllocationBase);
    return {end, static_cast<size_t>(reinterpret_cast<char*>(&stack) - end)};
}

// Keeps kStackGuarantee bytes of the calling thread's stack for its overflow.
void reserveStackForOverflow() {
    ULONG guarantee = kStackGuarantee;
    ::SetThreadStackGuarantee(&guarantee);
    // Some systems (Wine) commit the whole stack and leave its guard page at the very end. An overflow then has a few
    // hundred bytes to be handled in, and the system ends the thread when they are used up. So the guard page is moved.
    // Where that part of the stack is not committed yet, this call fails, and the system moves the page itself.
    DWORD before = 0;
    ::VirtualProtect(unusedStack().end + kStackGuarantee, /*dwSize=*/1, PAGE_READWRITE | PAGE_GUARD, &before);
}

// Gives back the memory of the stack that the calling thread does not use yet. Some systems (Wine) touch all of it when
// a thread begins, which is a megabyte.
void giveBackStack() {
    constexpr size_t kInUse = 16 * 1024;
    const UnusedStack stack = unusedStack();
    if (stack.size > kInUse) ::VirtualAlloc(stack.end, stack.size - kInUse, MEM_RESET, PAGE_READWRITE);
}

[[noreturn]] void endWithCrashResult() {
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(kCrashResult));
    __builtin_unreachable();
}

SehVerdict giveUp(EXCEPTION_POINTERS* /*exception*/, void* /*context*/) {
    return SehVerdict::ExecuteHandler;
}

[[noreturn]] void raiseNoncontinuable(DWORD code) {
    ::RaiseException(code, EXCEPTION_NONCONTINUABLE, /*nNumberOfArguments=*/0, /*lpArguments=*/nullptr);
    __builtin_unreachable();
}

void onInvalidParameter(const wchar_t* expression, const wchar_t* function, const wchar_t* file, unsigned int line,
                        uintptr_t /*reserved*/) {
    if (!MasterLogger::isOn(LogLevel::Crit)) return;
    const auto text = [](const wchar_t* wide) { return wide != nullptr ? std::optional(toUtf8(wide)) : std::nullopt; };
    const auto pointer = [](const std::optional<std::string>& narrow) { return narrow ? narrow->c_str() : nullptr; };
    const std::optional<std::string> expressionText = text(expression);
    const std::optional<std::string> functionText = text(function);
    const std::optional<std::string> fileText = text(file);
    MasterLogger::logText(
        LogLevel::Crit, invalidParameterText(pointer(expressionText), pointer(functionText), pointer(fileText), line));
}

// The exception as the dump records it: for a terminate, address and context are those of the throw, not of
// RaiseException.
struct RecordedException {
    ThrowSite site; // set before a terminate's exception is raised; otherwise unknown
    DWORD thread = 0;
    EXCEPTION_RECORD record{};
    CONTEXT context{};
    EXCEPTION_POINTERS pointers{&record, &context};

    void set(const EXCEPTION_POINTERS& caught) {
        thread = ::GetCurrentThreadId();
        record = *caught.ExceptionRecord;
        context = *caught.ContextRecord;
        if (site.instruction == 0) return;
        record.ExceptionAddress = reinterpret_cast<void*>(uintptr_t{site.instruction});
        context.Eip = site.instruction;
        context.Esp = site.stack;
        context.Ebp = site.frame;
    }
};

// The guard of this process, with all that a fault must find prepared. Never destroyed: its threads and handlers are
// needed until the process has ended.
class CrashGuard {
public:
    static CrashGuard& instance() {
        static NeverDestroyed<CrashGuard> guard;
        return *guard;
    }

    int run(int argc, char** argv, ApplicationMain applicationMain);

private:
    enum class DumpWriter : int { None, Writer, FaultingThread };

    // Restores the earlier handlers when the application returns or throws.
    struct Handlers {
        Handlers() { instance().installHandlers(); }
        ~Handlers() { instance().restoreHandlers(); }
        Handlers(const Handlers&) = delete;
        Handlers& operator=(const Handlers&) = delete;
    };

    struct Call {
        int argc;
        char** argv;
        ApplicationMain applicationMain;
        int result;
    };

    void installHandlers();
    void restoreHandlers();
    void startThreads();
    ScopedKernelHandle beginThread(DWORD(WINAPI* function)(void*), SIZE_T stack);
    void awaitFault();

    static void onTerminate();
    static void onAbort(int signal);
    static SehVerdict onFault(EXCEPTION_POINTERS* exception, void* context);
    static LONG WINAPI onFaultOnTheWayOut(EXCEPTION_POINTERS* exception);

    void awaitDump();
    void addLines();
    void noteProgress() { m_progress.fetch_add(1); }

    static DWORD WINAPI watch(void* parameter);

    static DWORD WINAPI writeOnOwnStack(void* parameter);
    void writeDump(DumpWriter writer);
    DWORD errorOfDump(const SymbolLibrary& library);

    std::atomic<DWORD> m_guardedThread; // set before the handlers that read it
    std::terminate_handler m_terminateBefore = nullptr;
    void (*m_abortBefore)(int) = SIG_DFL;

    std::string m_program;
    ScopedKernelHandle m_begun;     // set by each thread when it waits for a fault
    ScopedKernelHandle m_faulted;   // set by the fault
    ScopedKernelHandle m_dumpEnded; // set when the dump is written or has failed
    ScopedKernelHandle m_watchdog;
    ScopedKernelHandle m_writer;
    CrashWatch m_watch;

    std::atomic<bool> m_isReporting{false};
    std::atomic<uint64_t> m_progress;
    std::atomic<HANDLE> m_watchedFile{INVALID_HANDLE_VALUE};
    std::atomic<bool> m_isWriterAtHeap{false};              // waits for its lock, or goes on at once
    std::atomic<DumpWriter> m_dumpWriter{DumpWriter::None}; // who calls the system's function
    RecordedException m_exception;
    CrashNames m_names;
    ScopedFileHandle m_dumpFile; // open until the process has ended: the watchdog looks at its size
    DWORD m_dumpError = ERROR_INVALID_DATA;
};

int CrashGuard::run(int argc, char** argv, ApplicationMain applicationMain) {
    ::_set_invalid_parameter_handler(&onInvalidParameter);
    reserveStackForOverflow();
    m_program = runningProgramName();
    m_names = crashNames(m_program);
    startThreads();
    giveBackStack();
    const Handlers handlers;
    Call call{argc, argv, applicationMain, 0};
    const auto callApplication = [](void* context) {
        Call& to = *static_cast<Call*>(context);
        to.result = to.applicationMain(to.argc, to.argv);
    };
    if (runGuarded(callApplication, &onFault, &call) == SehOutcome::Returned) return call.result;
    ::SetUnhandledExceptionFilter(&onFaultOnTheWayOut);
    addLines();
    return kCrashResult;
}

void CrashGuard::installHandlers() {
    m_guardedThread = ::GetCurrentThreadId();
    m_terminateBefore = std::set_terminate(&onTerminate);
    m_abortBefore = std::signal(SIGABRT, &onAbort);
}

// After a fault the handlers stay, because another fault on the way out must not change how the process ends.
void CrashGuard::restoreHandlers() {
    if (m_isReporting) return;
    std::signal(SIGABRT, m_abortBefore);
    std::set_terminate(m_terminateBefore);
}

// The threads of an earlier run still wait. Without the watchdog there is no limit; without the writer the faulting
// thread writes the dump.
void CrashGuard::startThreads() {
    if (m_faulted) return;
    const auto makeEvent = [](BOOL isManualReset) {
        return ScopedKernelHandle(
            ::CreateEventA(/*lpEventAttributes=*/nullptr, isManualReset, /*bInitialState=*/FALSE, /*lpName=*/nullptr));
    };
    m_begun = makeEvent(FALSE);
    m_faulted = makeEvent(TRUE);
    m_dumpEnded = makeEvent(TRUE);
    if (!m_begun || !m_faulted || !m_dumpEnded) return;
    m_watch.prepare();
    m_watchdog = beginThread(&watch, kWatchdogStack);
    m_writer = beginThread(&writeOnOwnStack, kWriterStack);
}

ScopedKernelHandle CrashGuard::beginThread(DWORD(WINAPI* function)(void*), SIZE_T stack) {
    ScopedKernelHandle thread(::CreateThread(/*lpThreadAttributes=*/nullptr, stack, function, this,
                                             STACK_SIZE_PARAM_IS_A_RESERVATION, /*lpThreadId=*/nullptr));
    if (thread) ::WaitForSingleObject(m_begun.get(), g_crashPatienceMs);
    return thread;
}

void CrashGuard::awaitFault() {
    giveBackStack();
    ::SetEvent(m_begun.get());
    ::WaitForSingleObject(m_faulted.get(), INFINITE);
}

// A C++ exception that nobody catches arrives here with the stack as it was thrown, and so do pure virtual calls. Other
// threads are not guarded and end the process as they always did, by abort if the earlier handler returns.
void CrashGuard::onTerminate() {
    if (::GetCurrentThreadId() == instance().m_guardedThread) {
        instance().m_exception.site = findThrowSite();
        raiseNoncontinuable(kTerminateCode);
    }
    instance().m_terminateBefore();
}

// If it returns, abort ends the process.
void CrashGuard::onAbort(int /*signal*/) {
    // The runtime has removed the handler. Another abort, on the way out, must come here, too.
    std::signal(SIGABRT, &onAbort);
    if (::GetCurrentThreadId() == instance().m_guardedThread) raiseNoncontinuable(kAbortCode);
}

LONG WINAPI CrashGuard::onFaultOnTheWayOut(EXCEPTION_POINTERS* /*exception*/) {
    endWithCrashResult();
}

// The filter of the guard. A fault of the filter itself arrives here again; the dump is then abandoned.
SehVerdict CrashGuard::onFault(EXCEPTION_POINTERS* exception, void* /*context*/) {
    CrashGuard& guard = instance();
    if (guard.m_isReporting.exchange(true)) return SehVerdict::ExecuteHandler;
    guard.m_exception.set(*exception);
    ::SetEvent(guard.m_faulted.get());
    guard.awaitDump();
    return SehVerdict::ExecuteHandler;
}

void CrashGuard::awaitDump() {
    if (m_writer && ::WaitForSingleObject(m_dumpEnded.get(), g_crashPatienceMs / kShareOfWriter) == WAIT_OBJECT_0)
        return;
    const LentLocks lent(m_isWriterAtHeap);
    if (unusedStack().size > kStackForLibrary) writeDump(DumpWriter::FaultingThread);
    // Either the dump is there, or the writer has begun it after all.
    if (m_writer) ::WaitForSingleObject(m_dumpEnded.get(), INFINITE);
}

// Writes the log's line, then the history's. After a fault anything may be broken, so a fault in one must not prevent
// the other.
void CrashGuard::addLines() {
    // If the system's writer faulted, it left the watchdog suspended.
    ::ResumeThread(m_watchdog.get());
    m_watch.end();
    const auto log = [](void* context) {
        const CrashGuard& guard = *static_cast<CrashGuard*>(context);
        logDump(guard.m_names,
                guard.m_dumpError == ERROR_SUCCESS ? std::nullopt : std::optional(systemErrorText(guard.m_dumpError)));
    };
    const auto history = [](void* context) { appendToHistory(static_cast<CrashGuard*>(context)->m_names); };
    for (const auto step : {+log, +history}) {
        runGuarded(step, &giveUp, this);
        noteProgress();
    }
}

DWORD WINAPI CrashGuard::watch(void* parameter) {
    CrashGuard& guard = *static_cast<CrashGuard*>(parameter);
    guard.awaitFault();
    Standstill standstill;
    do {
        ::Sleep(g_crashPatienceMs / Standstill::kLooks);
        if (guard.m_watch.isRunning()) guard.noteProgress(); // the second process watches this part
    } while (!standstill.isReached(guard.m_progress + sizeOfFile(guard.m_watchedFile)));
    endWithCrashResult();
}

DWORD WINAPI CrashGuard::writeOnOwnStack(void* parameter) {
    CrashGuard& guard = *static_cast<CrashGuard*>(parameter);
    guard.awaitFault();
    const auto write = [](void* context) { static_cast<CrashGuard*>(context)->writeDump(DumpWriter::Writer); };
    if (runGuarded(write, &giveUp, &guard) == SehOutcome::Caught) {
        // The system's writer leaves the dump unfinished, the error as it was, and the other threads suspended.
        const ScopedKernelHandle faulting(
            ::OpenThread(THREAD_SUSPEND_RESUME, /*bInheritHandle=*/FALSE, guard.m_exception.thread));
        ::SetEvent(guard.m_dumpEnded.get());
        ::ResumeThread(faulting.get());
    }
    // Stays until the process ends. An ending thread would hold the loader's lock, which the end of the process needs,
    // and wait for the heap's, which the faulting thread may hold to the end.
    for (;;) ::Sleep(INFINITE);
}

void CrashGuard::writeDump(DumpWriter writer) {
    // The calls that may have to wait for the faulting thread come first: until m_dumpWriter is set, the other thread
    // may still take over. The heap comes before the library: whoever waits for it must not hold the loader's lock
    // meanwhile.
    m_isWriterAtHeap = writer == DumpWriter::Writer;
    if (::HeapLock(::GetProcessHeap()) != FALSE) ::HeapUnlock(::GetProcessHeap());
    m_isWriterAtHeap = false;
    const SymbolLibrary* const library = SymbolLibrary::get();
    const DWORD loadError = library != nullptr ? ERROR_SUCCESS : ::GetLastError();
    noteProgress();
    DumpWriter nobody = DumpWriter::None;
    if (!m_dumpWriter.compare_exchange_strong(nobody, writer)) return;
    m_names = crashNames(m_program);
    m_dumpError = library != nullptr ? errorOfDump(*library) : loadError;
    ::SetEvent(m_dumpEnded.get());
}

// Writes the dump's file and returns ERROR_SUCCESS, or the system's error.
DWORD CrashGuard::errorOfDump(const SymbolLibrary& library) {
    ::CreateDirectoryA(m_names.dumpsDirectory.c_str(), /*lpSecurityAttributes=*/nullptr);
    m_dumpFile.reset(::CreateFileA(m_names.dumpFile.c_str(), GENERIC_READ | GENERIC_WRITE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE, /*lpSecurityAttributes=*/nullptr, CREATE_ALWAYS,
                                   /*dwFlagsAndAttributes=*/0, /*hTemplateFile=*/nullptr));
    const DWORD createError = m_dumpFile ? ERROR_SUCCESS : ::GetLastError();
    m_watchedFile = m_dumpFile.get();
    // On a busy machine other threads' traces may take long. If the lock cannot be acquired in time, its holder may
    // hang, so the dump is written without it.
    const SymbolLock lock(g_crashPatienceMs / 3);
    noteProgress();
    // Some versions of the library otherwise read all symbols first, which takes ten times as long as the dump.
    library.setOptions(library.getOptions() | SYMOPT_DEFERRED_LOADS);
    MINIDUMP_EXCEPTION_INFORMATION exception{m_exception.thread, &m_exception.pointers, /*ClientPointers=*/TRUE};
    const auto watch = [](void* context) {
        CrashGuard& guard = *static_cast<CrashGuard*>(context);
        guard.m_watch.start(guard.m_dumpFile.get(), static_cast<UINT>(kCrashResult));
    };
    runGuarded(watch, &giveUp, this);
    const BOOL isWritten = library.writeDump(::GetCurrentProcess(), ::GetCurrentProcessId(), m_dumpFile.get(),
                                             MiniDumpWithDataSegs, &exception, /*UserStreamParam=*/nullptr,
                                             /*CallbackParam=*/nullptr);
    if (isWritten == FALSE) return ::GetLastError();
    return m_dumpFile ? errorOfWrittenDump(m_dumpFile.get()) : createError;
}

} // namespace

int guard(int argc, char** argv, ApplicationMain applicationMain) {
    if (isGuardSwitchedOff(argc, argv)) return applicationMain(argc, argv);
    return CrashGuard::instance().run(argc, argv, applicationMain);
}

} // namespace NS_CORE
