#include <gtest/gtest.h>
#include <share.h>
#include <stdlib.h>
#include <windows.h>
// tlhelp32.h needs windows.h before it.
#include <tlhelp32.h>
// psapi.h needs windows.h before it.
#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>

#include "absl/strings/str_cat.h"
#include "core/crash/core_crashguard.h"
#include "core/crash/internal/core_crashwatch_win32.h"
#include "core/crash/internal/core_lentlocks_win32.h"
#include "core/crash/internal/core_minidumpfile_win32.h"
#include "core/crash/internal/core_seh_win32.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/stack/core_symbollibrary_win32.h"
#include "core/stack/core_symbollock.h"
#include "tests/core/crash/crash_fixture.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"

namespace test {
namespace {

using DumpWriter = decltype(NS_CORE::SymbolLibrary::writeDump);

// In place of the system's writer. All of them get its parameters.
void setWriter(DumpWriter writer) {
    NS_CORE::SymbolLibrary::get()->writeDump = writer;
}

// Calls ::SuspendThread or ::ResumeThread for all other threads, as the system's writer does.
void forOtherThreads(DWORD(WINAPI* call)(HANDLE thread)) {
    const NS_CORE::ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more; more = ::Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID != ::GetCurrentProcessId() || entry.th32ThreadID == ::GetCurrentThreadId())
            continue;
        const NS_CORE::ScopedKernelHandle thread(::OpenThread(THREAD_SUSPEND_RESUME, FALSE, entry.th32ThreadID));
        call(thread.get());
    }
}

template <auto act>
BOOL WINAPI suspendAnd(HANDLE, DWORD, HANDLE, MINIDUMP_TYPE, MINIDUMP_EXCEPTION_INFORMATION*,
                       MINIDUMP_USER_STREAM_INFORMATION*, MINIDUMP_CALLBACK_INFORMATION*) {
    forOtherThreads(&::SuspendThread);
    act();
    return FALSE;
}

DumpWriter g_realWriter = nullptr;

// Twice takes longer than the tests' patience, but goes on: first in memory, then in the file. Meanwhile no other
// thread of the process runs.
BOOL WINAPI writeSlowly(HANDLE process, DWORD id, HANDLE file, MINIDUMP_TYPE type,
                        MINIDUMP_EXCEPTION_INFORMATION* exception, MINIDUMP_USER_STREAM_INFORMATION* streams,
                        MINIDUMP_CALLBACK_INFORMATION* callback) {
    forOtherThreads(&::SuspendThread);
    for (int round = 0; round < 40; ++round) {
        ::Sleep(500);
        DWORD count = 0;
        if (round < 20)
            std::memset(::VirtualAlloc(nullptr, 65'536, MEM_COMMIT, PAGE_READWRITE), 'x', 65'536);
        else
            ::WriteFile(file, "x", 1, &count, nullptr);
    }
    ::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    const BOOL isWritten = g_realWriter(process, id, file, type, exception, streams, callback);
    forOtherThreads(&::ResumeThread);
    return isWritten;
}

void tellWatchers() {
    const NS_CORE::ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    int count = 0;
    for (BOOL more = ::Process32First(snapshot.get(), &entry); more; more = ::Process32Next(snapshot.get(), &entry))
        count += entry.th32ParentProcessID == ::GetCurrentProcessId() &&
                 entry.szExeFile == std::string_view("core_tests.exe");
    std::printf("%d watchers\n", count);
    std::fflush(stdout);
}

// Whether what the calling thread's stack does not need yet takes no memory.
bool isStackUnused() {
    PSAPI_WORKING_SET_EX_INFORMATION page{};
    page.VirtualAddress = reinterpret_cast<char*>(&page) - 256 * 1024;
    return ::K32QueryWorkingSetEx(::GetCurrentProcess(), &page, sizeof(page)) && !page.VirtualAttributes.Valid;
}

decltype(&::SetEvent) g_setEvent = nullptr;

std::atomic<bool> g_hasTold = false;

// The writer may have done its work before the thread that wakes it goes on.
BOOL WINAPI setAndAwaitWriter(HANDLE event) {
    const BOOL isSet = g_setEvent(event);
    while (!g_hasTold) ::Sleep(1);
    return isSet;
}

// Prints what it is asked for, and whether others may read and write the dump meanwhile.
BOOL WINAPI tellParameters(HANDLE process, DWORD id, HANDLE, MINIDUMP_TYPE type,
                           MINIDUMP_EXCEPTION_INFORMATION* exception, MINIDUMP_USER_STREAM_INFORMATION* streams,
                           MINIDUMP_CALLBACK_INFORMATION* callback) {
    const NS_CORE::CrashNames names = NS_CORE::crashNames("core_tests");
    const NS_CORE::ScopedFileHandle again(::CreateFileA(names.dumpFile.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                                        nullptr));
    const DWORD options = NS_CORE::SymbolLibrary::get()->getOptions();
    std::printf(
        "type %d, deferred %d, process %d, code %lx, other thread %d, streams %d, callback %d, shared %d, "
        "stack %d\n",
        type, (options & SYMOPT_DEFERRED_LOADS) != 0, process == ::GetCurrentProcess() && id == ::GetCurrentProcessId(),
        exception->ExceptionPointers->ExceptionRecord->ExceptionCode,
        exception->ThreadId != ::GetCurrentThreadId() && exception->ClientPointers, streams != nullptr,
        callback != nullptr, static_cast<bool>(again), isStackUnused());
    tellWatchers();
    g_hasTold = true;
    ::SetLastError(ERROR_WRITE_FAULT);
    return FALSE;
}

decltype(&::CreateProcessW) g_createProcess = nullptr;

BOOL WINAPI tellFlags(LPCWSTR program, LPWSTR words, LPSECURITY_ATTRIBUTES process, LPSECURITY_ATTRIBUTES thread,
                      BOOL inherits, DWORD flags, LPVOID environment, LPCWSTR directory, LPSTARTUPINFOW startup,
                      LPPROCESS_INFORMATION started) {
    std::printf("flags %lx\n", flags);
    return g_createProcess(program, words, process, thread, inherits, flags, environment, directory, startup, started);
}

// The waits that have a limit.
DWORD WINAPI tellWait(HANDLE object, DWORD milliseconds) {
    const DWORD result = ::WaitForSingleObjectEx(object, milliseconds, FALSE);
    if (milliseconds != 0 && milliseconds != INFINITE) std::printf("waited %lu of %lu\n", result, milliseconds);
    return result;
}

// The watchdog's time, which the steps of a report let pass: nine looks, one less than it needs to give up.
const NS_CORE::ScopedKernelHandle g_wantsToLook{::CreateSemaphoreA(nullptr, 0, 1000, nullptr)};
const NS_CORE::ScopedKernelHandle g_mayLook{::CreateSemaphoreA(nullptr, 0, 1000, nullptr)};

void WINAPI sleepUntilAllowed(DWORD milliseconds) {
    if (milliseconds == INFINITE) ::SleepEx(INFINITE, FALSE);
    ::ReleaseSemaphore(g_wantsToLook.get(), 1, nullptr);
    ::WaitForSingleObject(g_mayLook.get(), INFINITE);
}

void letLook() {
    for (int looks = 0; looks < 9; ++looks) {
        ::WaitForSingleObject(g_wantsToLook.get(), INFINITE);
        ::ReleaseSemaphore(g_mayLook.get(), 1, nullptr);
    }
}

UINT WINAPI findDirectorySlowly(LPWSTR directory, UINT size) {
    letLook();
    return ::ExpandEnvironmentStringsW(L"%SystemRoot%\\system32", directory, size) - 1;
}

BOOL WINAPI createDirectorySlowly(LPCSTR path, LPSECURITY_ATTRIBUTES) {
    letLook();
    return std::filesystem::create_directory(path);
}

BOOL WINAPI startNothingSlowly(LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                               LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) {
    letLook();
    return FALSE;
}

std::FILE* openSlowly(const wchar_t* path, const wchar_t* mode) {
    letLook();
    return ::_wfsopen(path, mode, _SH_DENYNO);
}

UINT WINAPI findNoDirectory(LPWSTR, UINT) {
    ::SetLastError(ERROR_PATH_NOT_FOUND);
    return 0;
}

// For the calling thread, as a DLL's start function has it.
void holdLoaderLock() {
    using Lock = LONG(WINAPI*)(ULONG flags, ULONG * state, ULONG_PTR * cookie);
    const auto lock = reinterpret_cast<Lock>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "LdrLockLoaderLock")));
    ULONG state = 0;
    ULONG_PTR cookie = 0;
    EXPECT_EQ(lock(0, &state, &cookie), 0);
}

} // namespace

const bool kContinuesAfterHang = false;

const uint32_t kErrorOfDirectoryInPlace = ERROR_ACCESS_DENIED;

const Preparations& platformPreparations() {
    static const Preparations all{
        {"writer-faults", [] { setWriter(&suspendAnd<[] { crash("null"); }>); }},
        {"writer-hangs", [] { setWriter(&suspendAnd<[] { ::Sleep(INFINITE); }>); }},
        {"writer-slow",
         [] {
             g_realWriter = NS_CORE::SymbolLibrary::get()->writeDump;
             setWriter(&writeSlowly);
         }},
        {"writer-tells",
         [] {
             static const ImportHook starts("CreateProcessW", &tellFlags);
             g_createProcess = starts.original();
             static const ImportHook waits("WaitForSingleObject", &tellWait);
             static const ImportHook sets("SetEvent", &setAndAwaitWriter);
             g_setEvent = sets.original();
             setWriter(&tellParameters);
             std::atexit(&tellWatchers);
         }},
        {"slow-steps",
         [] {
             static const ImportHook sleeps("Sleep", &sleepUntilAllowed);
             static const ImportHook finds("GetSystemDirectoryW", &findDirectorySlowly);
             static const ImportHook creates("CreateDirectoryA", &createDirectorySlowly);
             static const ImportHook starts("CreateProcessW", &startNothingSlowly);
             static const ImportHook opens("_wfopen", &openSlowly);
             setGlobalObserver([](const auto& /*record*/) { letLook(); });
             std::atexit([] {
                 letLook();
                 std::printf("in time\n");
             });
         }},
        {"log-other-faults",
         [] { setGlobalObserver([](const auto& /*record*/) { std::thread([] { crash("null"); }).join(); }); }},
        {"library-missing",
         [] {
             static const ImportHook<decltype(::GetSystemDirectoryW)> hook("GetSystemDirectoryW", &findNoDirectory);
         }},
        {"heap-held", [] { ::HeapLock(::GetProcessHeap()); }},
        {"loader-held", &holdLoaderLock},
        {"library-held",
         [] {
             const NS_CORE::ScopedKernelHandle held(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
             const NS_CORE::ScopedKernelHandle thread(::CreateThread(
                 nullptr, 0,
                 [](void* event) WINAPI -> DWORD {
                     NS_CORE::SymbolLock lock(/*timeoutMs=*/0);
                     ::SetEvent(event);
                     ::Sleep(INFINITE);
                     return lock.isHeld();
                 },
                 held.get(), 0, nullptr));
             ::WaitForSingleObject(held.get(), INFINITE);
         }},
    };
    return all;
}

} // namespace test

namespace {

using Lines = std::vector<std::string>;
using NS_CORE::runGuarded;
using NS_CORE::SehOutcome;
using NS_CORE::SehVerdict;

// The fourth names the program that reads it. The last names another process, but the watcher may not wait for it, so
// it ends at once.
TEST_F(CrashTest, AWatchersTaskFromElsewhereMeansNothing) {
    HANDLE inherited = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentProcess(), ::GetCurrentProcess(), &inherited,
                      PROCESS_QUERY_LIMITED_INFORMATION, TRUE, 0);
    const NS_CORE::ScopedKernelHandle owner(inherited);
    const std::string other = absl::StrCat(absl::Hex(reinterpret_cast<uintptr_t>(inherited)));
    for (const auto& [process, code] :
         {std::pair<std::string, int>{"", 31}, {"yes", 31}, {"4", 31}, {"ffffffff", 31}, {other, 0}})
        EXPECT_EQ(run({.act = "arguments", .words = {"quorkeri-crash-watch " + process + " 8 1 0", "1"}}), code)
            << process;
}

int g_calls = 0;
std::wstring g_started;

// The system cuts a path that is longer than the caller's buffer. Windows refuses what is reserved; Wine does not look.
TEST(CrashWatch, StartsAProgramWhosePathIsLongAndUsesNothingReserved) {
    g_calls = 0;
    const test::ImportHook<decltype(::GetModuleFileNameW)> finds(
        "GetModuleFileNameW", [](HMODULE, LPWSTR path, DWORD size) WINAPI -> DWORD {
            const DWORD length = ++g_calls > 9 ? 0 : std::min(size, DWORD{2000});
            std::fill_n(path, length, L'x');
            return length;
        });
    const test::ImportHook<decltype(::InitializeProcThreadAttributeList)> begins(
        "InitializeProcThreadAttributeList",
        [](LPPROC_THREAD_ATTRIBUTE_LIST, DWORD, DWORD flags, PSIZE_T) WINAPI -> BOOL { return flags == 0; });
    const test::ImportHook<decltype(::UpdateProcThreadAttribute)> adds(
        "UpdateProcThreadAttribute",
        [](LPPROC_THREAD_ATTRIBUTE_LIST, DWORD flags, DWORD_PTR, PVOID, SIZE_T, PVOID, PSIZE_T)
            WINAPI -> BOOL { return flags == 0; });
    const test::ImportHook<decltype(::CreateProcessW)> starts(
        "CreateProcessW",
        [](LPCWSTR program, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR,
           LPSTARTUPINFOW, LPPROCESS_INFORMATION) WINAPI -> BOOL {
            g_started = program;
            return FALSE;
        });
    NS_CORE::CrashWatch watch;
    watch.prepare();
    watch.start(INVALID_HANDLE_VALUE, 0);
    EXPECT_EQ(g_started, std::wstring(2000, L'x'));
}

TEST_F(CrashTest, LocksOfTheFaultingThreadCostNothing) {
    // An overflowed stack has no room for the system's writer.
    for (const char* act : {"null", "overflow"}) {
        for (const char* kind : {"heap-held", "loader-held"})
            expectFullReport({.act = act, .preparation = kind, .patienceMs = 2 * kImpatienceMs});
    }
}

int g_left = 0;
int g_entered = 0;

const test::ChildProgram g_lends("lends-locks", [](const std::vector<std::string>&) {
    for (int depth = 0; depth < 2; ++depth) test::holdLoaderLock();
    const test::ImportHook<decltype(::LeaveCriticalSection)> leaves(
        "LeaveCriticalSection", [](LPCRITICAL_SECTION) WINAPI -> void { ++g_left; });
    const test::ImportHook<decltype(::EnterCriticalSection)> enters(
        "EnterCriticalSection", [](LPCRITICAL_SECTION) WINAPI -> void { ++g_entered; });
    {
        const NS_CORE::LentLocks lent(/*isHeapHeld=*/false);
    }
    return g_left * 10 + g_entered;
});

TEST(LentLocks, LendTheLoadersAsOftenAsItIsHeld) {
    EXPECT_EQ(test::runAndWait(test::childCommandLine("lends-locks")), 22);
}

TEST_F(CrashTest, AsksTheSystemForADumpWithDataSegments) {
    for (const auto& [act, code] : {std::pair{"null", "c0000005"}, {"exception", "e0000001"}, {"abort", "e0000002"}}) {
        EXPECT_EQ(run({.act = act, .preparation = "writer-tells", .patienceMs = 600'000}), test::kCrashExitCode);
        EXPECT_EQ(m_output, std::string("waited 0 of 200000\nflags 80008\ntype 1, deferred 1, process 1, code ") +
                                code +
                                ", other thread 1, streams 0, callback 0, shared 1, stack 1\n1 watchers\n"
                                "waited 0 of 100000\nwaited 0 of 5000\n" +
                                failed(ERROR_WRITE_FAULT) + "0 watchers\n");
    }
    // A writer that has no file is watched, too.
    std::filesystem::remove(dumpFile());
    std::filesystem::create_directory(dumpFile());
    run({.preparation = "writer-tells"});
    EXPECT_NE(m_output.find("\n1 watchers\n"), std::string::npos);
}

// Each step has the whole patience, and none needs the watcher.
TEST_F(CrashTest, StepsThatAreSlowAreNotGivenUp) {
    expectCrash({.preparation = "slow-steps", .patienceMs = 600'000});
    EXPECT_EQ(m_output, written() + "in time\n");
}

TEST_F(CrashTest, AFaultOfAnotherThreadDuringTheReportDoesNotChangeTheResult) {
    EXPECT_EQ(run({.preparation = "log-other-faults"}), test::kCrashExitCode);
}

int g_callsBefore = 0; // the one that fails
int g_threads = 0;     // that have begun

HANDLE WINAPI makeEvent(LPSECURITY_ATTRIBUTES, BOOL isManualReset, BOOL, LPCSTR) {
    const DWORD flags = isManualReset ? CREATE_EVENT_MANUAL_RESET : 0;
    return g_callsBefore-- == 0 ? nullptr : ::CreateEventExA(nullptr, nullptr, flags, EVENT_ALL_ACCESS);
}

HANDLE WINAPI beginThread(LPSECURITY_ATTRIBUTES, SIZE_T stack, LPTHREAD_START_ROUTINE function, LPVOID parameter,
                          DWORD flags, LPDWORD) {
    if (g_callsBefore-- == 0) return nullptr;
    return ::CreateRemoteThread(::GetCurrentProcess(), nullptr, stack, function, parameter, flags, nullptr);
}

DWORD WINAPI awaitBegin(HANDLE object, DWORD milliseconds) {
    const DWORD result = ::WaitForSingleObjectEx(object, milliseconds, FALSE);
    g_threads += milliseconds == NS_CORE::g_crashPatienceMs && result == WAIT_OBJECT_0;
    return result;
}

int guarded(NS_CORE::ApplicationMain application, std::string word = "word") {
    char program[] = "program";
    char* argv[] = {program, word.data(), nullptr};
    return NS_CORE::guard(2, argv, application);
}

const test::ChildProgram g_failingCalls("guarded-with-failing-calls", [](const std::vector<std::string>& arguments) {
    const test::ImportHook events("CreateEventA", &makeEvent);
    const test::ImportHook threads("CreateThread", &beginThread);
    const test::ImportHook waits("WaitForSingleObject", &awaitBegin);
    g_callsBefore = std::stoi(arguments.at(1));
    std::filesystem::current_path(arguments.at(0));
    NS_CORE::setDefaultPaths();
    return guarded([](int, char**) {
        std::printf("%d threads\n", g_threads);
        std::atexit(&test::allocateAside);
        test::crash("null");
        return 0;
    });
});

// Three events, then two threads. Without its events no thread begins, and the others begin before the application.
TEST_F(CrashTest, NeedsNeitherEventsNorThreads) {
    for (int callsBefore = 0; callsBefore < 5; ++callsBefore) {
        test::SelfProcess child("guarded-with-failing-calls",
                                {m_directory.path().string(), std::to_string(callsBefore)});
        std::string output = child.readAll();
        std::erase(output, '\r');
        EXPECT_EQ(output, (callsBefore < 3 ? "0 threads\n" : "1 threads\n") + written() + "allocated\n") << callsBefore;
        EXPECT_EQ(child.wait(), test::kCrashExitCode);
        EXPECT_TRUE(std::filesystem::remove(dumpFile()));
    }
}

const test::ChildProgram g_terminates("guarded-terminates-aside", [](const std::vector<std::string>&) {
    std::set_terminate([] { std::_Exit(42); });
    return guarded([](int, char**) {
        std::thread([] { std::terminate(); }).join();
        return 0;
    });
});

TEST(CrashHandlers, AreTheEarlierOnesForOtherThreads) {
    EXPECT_EQ(test::SelfProcess("guarded-terminates-aside").wait(), 42);
}

// What an overflow needs is kept, and what the stack does not need yet is given back.
TEST(CrashHandlers, HaveTheirPartOfTheStack) {
    const auto application = [](int, char**) {
        ULONG kept = 0;
        ::SetThreadStackGuarantee(&kept);
        EXPECT_EQ(kept, 65'536U);
        MEMORY_BASIC_INFORMATION stack{};
        ::VirtualQuery(&stack, &stack, sizeof(stack));
        ::VirtualQuery(static_cast<char*>(stack.AllocationBase) + kept, &stack, sizeof(stack));
        EXPECT_TRUE(stack.State != MEM_COMMIT || (stack.Protect & PAGE_GUARD) != 0);
        EXPECT_TRUE(test::isStackUnused());
        return 7;
    };
    EXPECT_EQ(guarded(application), 7);
}

// The writer left the watchdog suspended.
TEST_F(CrashTest, ALogThatHangsAfterAWriterThatFaultedIsGivenUp) {
    expectCrash({.preparation = "writer-faults+log-hangs", .patienceMs = kImpatienceMs}, /*hasDump=*/false,
                /*hasHistory=*/false);
}

TEST_F(CrashTest, WithoutTheSystemsLibraryAndWithAWriterThatFaultsTheLinesAreThere) {
    for (const auto& [kind, error] :
         {std::pair{"library-missing", ERROR_PATH_NOT_FOUND}, {"writer-faults", ERROR_INVALID_DATA}}) {
        expectCrash({.preparation = kind}, /*hasDump=*/false);
        EXPECT_EQ(m_output, failed(static_cast<uint32_t>(error))) << kind;
    }
}

TEST(WrittenDump, IsCutOffOrNoFile) {
    const test::TempDir directory;
    const NS_CORE::ScopedFileHandle file(::CreateFileW(
        (directory.path() / "dump").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    EXPECT_EQ(NS_CORE::errorOfWrittenDump(file.get()), DWORD{ERROR_DISK_FULL});
    DWORD count = 0;
    ::WriteFile(file.get(), "MDMP\0\0\0\0\0\0\0", 12, &count, nullptr); // the first three fields
    EXPECT_EQ(NS_CORE::errorOfWrittenDump(file.get()), DWORD{ERROR_DISK_FULL});
    EXPECT_EQ(NS_CORE::errorOfWrittenDump(INVALID_HANDLE_VALUE), DWORD{ERROR_INVALID_HANDLE});
}

// Calls a function of the runtime library with an argument that it refuses, under guard.
int callWithBadArgument() {
    return guarded([](int, char**) { return int{::fopen_s(nullptr, "file", "r")}; });
}

const std::string kInvalidParameter = "Invalid parameter detected (exp=(null)) (func=(null)) (file=(null):0)";

TEST(InvalidParameter, IsLoggedOnEveryThreadAndTheCallReturnsItsError) {
    const test::LogRecorder log;
    EXPECT_EQ(callWithBadArgument(), EINVAL);
    EXPECT_EQ(log.lines(), Lines{"CRIT " + kInvalidParameter});
    const NS_CORE::ScopedKernelHandle thread(::CreateThread(
        nullptr, 0, [](void*) WINAPI -> DWORD { return static_cast<DWORD>(::fopen_s(nullptr, "file", "r")); }, nullptr,
        0, nullptr));
    ::WaitForSingleObject(thread.get(), INFINITE);
    EXPECT_EQ(log.lines(), (Lines{"CRIT " + kInvalidParameter, "CRIT " + kInvalidParameter}));
}

TEST(InvalidParameter, IsNotLoggedWithCritOff) {
    const test::LogRecorder log;
    NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Crit, 0);
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Crit, 0);
    EXPECT_EQ(callWithBadArgument(), EINVAL);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(InvalidParameter, IsNotHandledWithTheSwitchWord) {
    const _invalid_parameter_handler before = _get_invalid_parameter_handler();
    guarded([](int, char**) { return 0; }, "jitd");
    EXPECT_EQ(_get_invalid_parameter_handler(), before);
}

TEST(CrashHandlers, AreTheEarlierOnesAfterARunWithoutFault) {
    const std::terminate_handler before = std::get_terminate();
    callWithBadArgument();
    EXPECT_EQ(std::get_terminate(), before);
    EXPECT_EQ(std::signal(SIGABRT, SIG_DFL), SIG_DFL);
}

struct Filtered {
    DWORD code = 0;
    int calls = 0;
    SehVerdict verdict = SehVerdict::ExecuteHandler;
};

SehVerdict noteException(EXCEPTION_POINTERS* exception, void* context) {
    auto& filtered = *static_cast<Filtered*>(context);
    filtered.code = exception->ExceptionRecord->ExceptionCode;
    ++filtered.calls;
    return filtered.verdict;
}

constexpr DWORD kCode = 0xE1234567;

void raise(void*) {
    ::RaiseException(kCode, 0, 0, nullptr);
}

TEST(RunGuarded, CatchesAFaultAgainAndAgainAndNothingElse) {
    Filtered filtered;
    const DWORD chain = __readfsdword(0);
    EXPECT_EQ(runGuarded([](void*) {}, &noteException, &filtered), SehOutcome::Returned);
    for (int round = 1; round <= 1000; ++round) {
        ASSERT_EQ(runGuarded(&raise, &noteException, &filtered), SehOutcome::Caught);
        ASSERT_EQ(filtered.calls, round);
        ASSERT_EQ(filtered.code, kCode);
    }
    EXPECT_EQ(__readfsdword(0), chain);
}

DWORD g_lastFlags = 0;

EXCEPTION_DISPOSITION noteFlags(EXCEPTION_RECORD* exception, void*, CONTEXT*, void*) {
    g_lastFlags = exception->ExceptionFlags;
    return ExceptionContinueSearch;
}

TEST(RunGuarded, LeavesToTheOuterGuardWhatItsFilterDoesNotWant) {
    Filtered outer;
    static Filtered inner;
    inner = {.verdict = SehVerdict::ContinueSearch};
    const DWORD chain = __readfsdword(0);
    const auto body = [](void*) {
        volatile EXCEPTION_REGISTRATION_RECORD between = {
            reinterpret_cast<EXCEPTION_REGISTRATION_RECORD*>(__readfsdword(0)),
            reinterpret_cast<PEXCEPTION_ROUTINE>(&noteFlags)};
        __writefsdword(0, reinterpret_cast<DWORD>(&between));
        runGuarded(&raise, &noteException, &inner);
        ADD_FAILURE() << "the inner guard caught it";
    };
    EXPECT_EQ(runGuarded(body, &noteException, &outer), SehOutcome::Caught);
    EXPECT_EQ(inner.calls, 1);
    EXPECT_EQ(outer.calls, 1);
    EXPECT_EQ(outer.code, kCode);
    EXPECT_NE(g_lastFlags & EXCEPTION_UNWINDING, 0U);
    EXPECT_EQ(__readfsdword(0), chain);
}

TEST(RunGuarded, CatchesInsideWhatTheInnerGuardWants) {
    Filtered outer;
    const auto body = [](void*) {
        Filtered inner;
        EXPECT_EQ(runGuarded(&raise, &noteException, &inner), SehOutcome::Caught);
        EXPECT_EQ(inner.calls, 1);
    };
    EXPECT_EQ(runGuarded(body, &noteException, &outer), SehOutcome::Returned);
    EXPECT_EQ(outer.calls, 0);
}

TEST(RunGuarded, LetsACxxExceptionThrough) {
    Filtered filtered;
    const DWORD chain = __readfsdword(0);
    EXPECT_THROW(runGuarded([](void*) { throw 1; }, &noteException, &filtered), int);
    EXPECT_EQ(filtered.calls, 0);
    EXPECT_EQ(__readfsdword(0), chain);
}

} // namespace
