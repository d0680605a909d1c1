#include "core/crash/core_crashguard.h"

#include <windows.h>
// dbghelp.h needs windows.h before it.
#include <dbghelp.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "core/crash/internal/core_crashreport.h"
#include "core/crash/internal/core_seh_win32.h"
#include "core/crash/internal/core_throwsite_win32.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/stack/core_symbollock.h"
#include "core/text/core_utf8_win32.h"

namespace NS_CORE {

namespace {

// Codes of the exceptions that stand for what this runtime library does not tell by one: error severity, and the bit
// that marks codes as not Microsoft's.
constexpr DWORD kTerminateCode = 0xE0000001;
constexpr DWORD kAbortCode = 0xE0000002;

// Left on the guarded thread's stack when it overflows, for the exception to be handled at all.
constexpr ULONG kStackGuarantee = 64 * 1024;

// Of the thread that writes the dump of an overflowed stack, and of the one that limits the report.
constexpr SIZE_T kWriterStack = 512 * 1024;
constexpr SIZE_T kWatchdogStack = 64 * 1024;

// 0 while nothing is guarded. Only ever compared with the reading thread's own id.
volatile DWORD g_guardedThread = 0;

// site  null, or where it really happened: goes along as the exception's only argument.
[[noreturn]] void raiseForGood(DWORD code, const ThrowSite* site) {
    const auto argument = reinterpret_cast<ULONG_PTR>(site);
    ::RaiseException(code, EXCEPTION_NONCONTINUABLE, /*nNumberOfArguments=*/1, &argument);
    __builtin_unreachable();
}

// A C++ exception that nobody catches does not become a structured one by itself. It comes here with the stack as it
// was thrown, and so do pure virtual calls. Other threads are not guarded and end the process as they always did.
std::terminate_handler g_terminateBefore = nullptr;

[[noreturn]] void onTerminate() {
    if (::GetCurrentThreadId() == g_guardedThread) {
        const ThrowSite site = findThrowSite();
        raiseForGood(kTerminateCode, &site);
    }
    if (g_terminateBefore != nullptr) g_terminateBefore();
    std::abort();
}

// When it returns, abort ends the process.
void onAbort(int /*signal*/) {
    if (::GetCurrentThreadId() == g_guardedThread) raiseForGood(kAbortCode, /*site=*/nullptr);
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

[[noreturn]] void endWithCrashResult() {
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(kCrashResult));
    __builtin_unreachable();
}

LONG WINAPI onFaultOnTheWayOut(EXCEPTION_POINTERS* /*exception*/) {
    endWithCrashResult();
}

// Turns the ends of a C++ program on this thread into structured exceptions while it lives.
class FaultsAsExceptions {
public:
    FaultsAsExceptions() {
        g_guardedThread = ::GetCurrentThreadId();
        g_terminateBefore = std::set_terminate(&onTerminate);
        m_abortBefore = std::signal(SIGABRT, &onAbort);
    }
    ~FaultsAsExceptions() {
        if (m_isKept) return;
        std::signal(SIGABRT, m_abortBefore);
        std::set_terminate(g_terminateBefore);
        g_guardedThread = 0;
    }
    FaultsAsExceptions(const FaultsAsExceptions&) = delete;
    FaultsAsExceptions& operator=(const FaultsAsExceptions&) = delete;

    // After a fault: another one on the way out of the process must not change how it ends.
    void keepForTheWayOut() {
        m_isKept = true;
        ::SetUnhandledExceptionFilter(&onFaultOnTheWayOut);
    }

private:
    void (*m_abortBefore)(int);
    bool m_isKept = false;
};

// Ends the process when the report of a fault and the way out after it take too long: they may wait for a lock that
// nobody gives back any more. Its thread is made before the fault, since a broken process may not make another, and
// runs from the fault on: until then it costs next to nothing (36 KiB under Wine, where one that waits costs a
// megabyte). The price is that a fault of a thread that loads a library has no limit, because a thread begins under the
// loader's lock.
class Watchdog {
public:
    // Without the event or the thread there is no limit.
    Watchdog() {
        g_over = ::CreateEventA(/*lpEventAttributes=*/nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE,
                                /*lpName=*/nullptr);
        m_thread.reset(::CreateThread(/*lpThreadAttributes=*/nullptr, kWatchdogStack, &watch, /*lpParameter=*/nullptr,
                                      CREATE_SUSPENDED | STACK_SIZE_PARAM_IS_A_RESERVATION, /*lpThreadId=*/nullptr));
    }
    ~Watchdog() {
        // Else it watches until the process has ended.
        if (m_limits) return;
        ::SetEvent(g_over);
        if (m_thread && ::ResumeThread(m_thread.get()) != kResumeFailed)
            ::WaitForSingleObject(m_thread.get(), INFINITE);
        ::CloseHandle(g_over);
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void beginLimit() {
        m_limits = true;
        if (m_thread) ::ResumeThread(m_thread.get());
    }

private:
    static constexpr DWORD kResumeFailed = ~DWORD{0};

    // Apart from the object, which the thread may outlive.
    static inline HANDLE g_over = nullptr;

    static DWORD WINAPI watch(void* /*parameter*/) {
        if (::WaitForSingleObject(g_over, g_crashPatienceMs.load()) == WAIT_TIMEOUT) endWithCrashResult();
        return 0;
    }

    ScopedKernelHandle m_thread;
    bool m_limits = false;
};

// One run under guard, with what its fault leaves for the report.
struct GuardedRun {
    int argc;
    char** argv;
    ApplicationMain applicationMain;
    Watchdog* watchdog;
    int result;
    bool isDumpBegun;
    bool isDumpWritten;
    DWORD dumpError; // of the system, when it is not written
    CrashNames names;
};

// An exception as the dump is to tell it: what stands for a C++ exception happened where that was thrown.
class ToldException {
public:
    explicit ToldException(EXCEPTION_POINTERS* caught) : m_pointers(*caught) {
        const EXCEPTION_RECORD& record = *caught->ExceptionRecord;
        if (record.ExceptionCode != kTerminateCode || record.NumberParameters != 1) return;
        const auto* const site = reinterpret_cast<const ThrowSite*>(record.ExceptionInformation[0]);
        if (site == nullptr || site->instruction == 0) return;
        m_record = record;
        m_record.ExceptionAddress = reinterpret_cast<void*>(uintptr_t{site->instruction});
        m_context = *caught->ContextRecord;
        m_context.Eip = site->instruction;
        m_context.Esp = site->stack;
        m_context.Ebp = site->frame;
        m_pointers = {&m_record, &m_context};
    }
    ToldException(const ToldException&) = delete;
    ToldException& operator=(const ToldException&) = delete;
    ~ToldException() = default;

    EXCEPTION_POINTERS* pointers() { return &m_pointers; }

private:
    EXCEPTION_RECORD m_record{};
    CONTEXT m_context{};
    EXCEPTION_POINTERS m_pointers;
};

constexpr ULONG32 kDumpSignature = 0x504d444d; // "MDMP"

bool readAt(HANDLE file, DWORD position, void* to, DWORD size) {
    OVERLAPPED from{};
    from.Offset = position;
    DWORD count = 0;
    return ::ReadFile(file, to, size, &count, &from) != FALSE && count == size;
}

// Whether the file holds all that its own directory promises.
bool isWholeDump(HANDLE file, uint64_t fileSize) {
    MINIDUMP_HEADER header{};
    if (!readAt(file, 0, &header, sizeof(header)) || header.Signature != kDumpSignature) return false;
    for (DWORD index = 0; index < header.NumberOfStreams; ++index) {
        MINIDUMP_DIRECTORY entry{};
        const DWORD position = header.StreamDirectoryRva + index * static_cast<DWORD>(sizeof(entry));
        if (!readAt(file, position, &entry, sizeof(entry))) return false;
        if (uint64_t{entry.Location.Rva} + entry.Location.DataSize > fileSize) return false;
    }
    return true;
}

// What is wrong with the file after the writer said that it is done, or ERROR_SUCCESS. Some writers do not notice that
// the disk takes nothing any more.
DWORD errorOfDone(HANDLE file) {
    LARGE_INTEGER size{};
    if (::GetFileSizeEx(file, &size) == FALSE) return ::GetLastError();
    return isWholeDump(file, static_cast<uint64_t>(size.QuadPart)) ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

void writeDump(GuardedRun& run, EXCEPTION_POINTERS* exception, DWORD faultingThread) {
    run.names = crashNames();
    ::CreateDirectoryA(run.names.dumpsDirectory.c_str(), /*lpSecurityAttributes=*/nullptr);
    const ScopedFileHandle file(
        ::CreateFileA(run.names.dumpFile.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      /*lpSecurityAttributes=*/nullptr, CREATE_ALWAYS, /*dwFlagsAndAttributes=*/0,
                      /*hTemplateFile=*/nullptr));
    const DWORD createError = file ? ERROR_SUCCESS : ::GetLastError();
    MINIDUMP_EXCEPTION_INFORMATION information{faultingThread, exception, /*ClientPointers=*/TRUE};
    // Without one it is tried all the same.
    const SymbolTurn turn(SymbolTurn::kTracePatienceMs);
    const BOOL isWritten = ::MiniDumpWriteDump(::GetCurrentProcess(), ::GetCurrentProcessId(), file.get(),
                                               MiniDumpWithDataSegs, exception != nullptr ? &information : nullptr,
                                               /*UserStreamParam=*/nullptr, /*CallbackParam=*/nullptr);
    run.dumpError = isWritten == FALSE ? ::GetLastError() : file ? errorOfDone(file.get()) : createError;
    run.isDumpWritten = run.dumpError == ERROR_SUCCESS;
}

// What the writer's thread needs of the faulting one, which waits.
struct DumpOrder {
    GuardedRun& run;
    EXCEPTION_POINTERS* exception;
    DWORD faultingThread;
};

DWORD WINAPI writeDumpForOther(void* order) {
    const auto& from = *static_cast<DumpOrder*>(order);
    writeDump(from.run, from.exception, from.faultingThread);
    return 0;
}

// On an overflowed stack there is no room for the writer; a thread of its own brings a stack along.
void writeDumpOfOverflow(GuardedRun& run, EXCEPTION_POINTERS* exception) {
    DumpOrder order{run, exception, ::GetCurrentThreadId()};
    const ScopedKernelHandle writer(::CreateThread(/*lpThreadAttributes=*/nullptr, kWriterStack, &writeDumpForOther,
                                                   &order, STACK_SIZE_PARAM_IS_A_RESERVATION, /*lpThreadId=*/nullptr));
    if (writer)
        ::WaitForSingleObject(writer.get(), INFINITE);
    else
        writeDump(run, exception, order.faultingThread);
}

// The filter of the guard. A fault of the writer itself comes here again, and gives the dump up.
SehVerdict onFault(EXCEPTION_POINTERS* exception, void* context) {
    auto& run = *static_cast<GuardedRun*>(context);
    if (run.isDumpBegun) return SehVerdict::ExecuteHandler;
    run.isDumpBegun = true;
    run.watchdog->beginLimit();
    if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW)
        writeDumpOfOverflow(run, exception);
    else
        writeDump(run, ToldException(exception).pointers(), ::GetCurrentThreadId());
    return SehVerdict::ExecuteHandler;
}

void runApplication(void* context) {
    auto& run = *static_cast<GuardedRun*>(context);
    run.result = run.applicationMain(run.argc, run.argv);
}

void logDumpOf(void* context) {
    const auto& run = *static_cast<GuardedRun*>(context);
    logDump(run.names, run.isDumpWritten ? std::nullopt : std::optional(systemErrorText(run.dumpError)));
}

void appendToHistoryOf(void* context) {
    appendToHistory(static_cast<GuardedRun*>(context)->names);
}

SehVerdict giveUp(EXCEPTION_POINTERS* /*exception*/, void* /*context*/) {
    return SehVerdict::ExecuteHandler;
}

// After a fault anything may be broken: what fails here must not keep the rest from being done.
void reportFault(GuardedRun& run) {
    runGuarded(&logDumpOf, &giveUp, &run);
    runGuarded(&appendToHistoryOf, &giveUp, &run);
}

void reserveStack() {
    ULONG size = kStackGuarantee;
    ::SetThreadStackGuarantee(&size);
}

} // namespace

int guard(int argc, char** argv, ApplicationMain applicationMain) {
    if (isGuardSwitchedOff(argc, argv)) return applicationMain(argc, argv);
    ::_set_invalid_parameter_handler(&onInvalidParameter);
    reserveStack();
    FaultsAsExceptions faultsAsExceptions;
    Watchdog watchdog;
    GuardedRun run{argc, argv, applicationMain, &watchdog, 0, false, false, ERROR_INVALID_DATA, {}};
    if (runGuarded(&runApplication, &onFault, &run) == SehOutcome::Returned) return run.result;
    faultsAsExceptions.keepForTheWayOut();
    reportFault(run);
    return kCrashResult;
}

} // namespace NS_CORE
