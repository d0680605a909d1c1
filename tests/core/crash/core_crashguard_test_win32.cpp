#include <gtest/gtest.h>
#include <stdlib.h>
#include <windows.h>
// tlhelp32.h needs windows.h before it.
#include <tlhelp32.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "core/crash/core_crashguard.h"
#include "core/crash/internal/core_minidumpfile_win32.h"
#include "core/crash/internal/core_seh_win32.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/stack/core_symbollibrary_win32.h"
#include "core/stack/core_symbollock.h"
#include "tests/core/crash/crash_fixture.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"

namespace test {
namespace {

std::string textOf(DWORD error) {
    std::string text = NS_CORE::systemErrorText(error);
    std::erase(text, '\r');
    return text;
}

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

BOOL WINAPI suspendAndHang(HANDLE, DWORD, HANDLE, MINIDUMP_TYPE, MINIDUMP_EXCEPTION_INFORMATION*,
                           MINIDUMP_USER_STREAM_INFORMATION*, MINIDUMP_CALLBACK_INFORMATION*) {
    forOtherThreads(&::SuspendThread);
    ::Sleep(INFINITE);
    return FALSE;
}

BOOL WINAPI suspendAndFault(HANDLE, DWORD, HANDLE, MINIDUMP_TYPE, MINIDUMP_EXCEPTION_INFORMATION*,
                            MINIDUMP_USER_STREAM_INFORMATION*, MINIDUMP_CALLBACK_INFORMATION*) {
    forOtherThreads(&::SuspendThread);
    crash("null");
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

// Prints what it is asked for, and whether others may read and write the dump meanwhile.
BOOL WINAPI tellParameters(HANDLE process, DWORD id, HANDLE, MINIDUMP_TYPE type,
                           MINIDUMP_EXCEPTION_INFORMATION* exception, MINIDUMP_USER_STREAM_INFORMATION* streams,
                           MINIDUMP_CALLBACK_INFORMATION* callback) {
    const NS_CORE::CrashNames names = NS_CORE::crashNames("core_tests");
    const NS_CORE::ScopedFileHandle again(::CreateFileA(names.dumpFile.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                                        nullptr));
    const DWORD options = NS_CORE::SymbolLibrary::get()->getOptions();
    std::printf("type %d, deferred %d, process %d, code %lx, other thread %d, streams %d, callback %d, shared %d\n",
                type, (options & SYMOPT_DEFERRED_LOADS) != 0,
                process == ::GetCurrentProcess() && id == ::GetCurrentProcessId(),
                exception->ExceptionPointers->ExceptionRecord->ExceptionCode,
                exception->ThreadId != ::GetCurrentThreadId() && exception->ClientPointers, streams != nullptr,
                callback != nullptr, static_cast<bool>(again));
    tellWatchers();
    ::SetLastError(ERROR_WRITE_FAULT);
    return FALSE;
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

std::string lineOfFaultingWriter(const std::string& /*written*/,
                                 const std::function<std::string(std::string)>& failed) {
    return failed(textOf(ERROR_INVALID_DATA));
}

std::string errorOfDirectoryInPlace() {
    return textOf(ERROR_ACCESS_DENIED);
}

const Preparations& platformPreparations() {
    static const Preparations all{
        {"writer-faults", [] { setWriter(&suspendAndFault); }},
        {"writer-hangs", [] { setWriter(&suspendAndHang); }},
        {"writer-slow",
         [] {
             g_realWriter = NS_CORE::SymbolLibrary::get()->writeDump;
             setWriter(&writeSlowly);
         }},
        {"writer-tells",
         [] {
             setWriter(&tellParameters);
             std::atexit(&tellWatchers);
         }},
        {"library-missing",
         [] {
             static const ImportHook<decltype(::GetSystemDirectoryW)> hook("GetSystemDirectoryW", &findNoDirectory);
         }},
        {"program-moved", [] { std::filesystem::rename("program.exe", "moved.exe"); }},
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

// The last names a handle of the program that reads it, and not of another one.
TEST_F(CrashTest, AWatchersTaskFromElsewhereMeansNothing) {
    for (const char* process : {"", "yes", "4", "ffffffff"})
        EXPECT_EQ(run({.act = "arguments", .words = {"quorkeri-crash-watch", process, "8", "1", "0"}}), 61) << process;
}

TEST_F(CrashTest, NeedsNoWatcher) {
    test::linkThisProgram(m_directory.path() / "program.exe");
    EXPECT_EQ(test::runAndWait(test::childCommandLineOf(m_directory.file("program.exe"), "guarded",
                                                        {"null", test::utf8(m_directory.path()), "program-moved"})),
              static_cast<int>(test::kCrashExitCode));
    EXPECT_GT(std::filesystem::file_size(*std::filesystem::directory_iterator(dumps())), 100U);
    EXPECT_NE(history(), "");
}

TEST_F(CrashTest, LocksOfTheFaultingThreadCostNothing) {
    // An overflowed stack has no room for the system's writer.
    for (const char* act : {"null", "overflow"}) {
        for (const char* kind : {"heap-held", "loader-held"})
            expectFullReport({.act = act, .preparation = kind, .patienceMs = 2 * kImpatienceMs});
    }
}

TEST_F(CrashTest, AsksTheSystemForADumpWithDataSegments) {
    for (const auto& [act, code] : {std::pair{"null", "c0000005"}, {"exception", "e0000001"}, {"abort", "e0000002"}}) {
        EXPECT_EQ(run({.act = act, .preparation = "writer-tells"}), test::kCrashExitCode);
        EXPECT_EQ(m_output, std::string("type 1, deferred 1, process 1, code ") + code +
                                ", other thread 1, streams 0, callback 0, shared 1\n1 watchers\n" +
                                failed(test::textOf(ERROR_WRITE_FAULT)) + "0 watchers\n");
    }
    // A writer that has no file is watched, too.
    std::filesystem::remove(dumpFile());
    std::filesystem::create_directory(dumpFile());
    run({.preparation = "writer-tells"});
    EXPECT_NE(m_output.find("\n1 watchers\n"), std::string::npos);
}

// The writer left the watchdog suspended.
TEST_F(CrashTest, ALogThatHangsAfterAWriterThatFaultedIsGivenUp) {
    expectCrash({.preparation = "writer-faults+log-hangs", .patienceMs = kImpatienceMs}, /*hasDump=*/false,
                /*hasHistory=*/false);
}

TEST_F(CrashTest, WithoutTheSystemsLibraryTheLinesAreThere) {
    expectCrash({.preparation = "library-missing"}, /*hasDump=*/false);
    EXPECT_EQ(m_output, failed(test::textOf(ERROR_PATH_NOT_FOUND)));
}

// Holds a file that no other program may open meanwhile, as a scanner or an archiver does.
NS_CORE::ScopedFileHandle holdAlone(const std::filesystem::path& path) {
    std::filesystem::create_directories(path.parent_path());
    return NS_CORE::ScopedFileHandle(::CreateFileW(path.c_str(), GENERIC_WRITE, /*dwShareMode=*/0,
                                                   /*lpSecurityAttributes=*/nullptr, CREATE_ALWAYS,
                                                   FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr));
}

TEST_F(CrashTest, FilesThatAnotherProgramHoldsCostNothingElse) {
    NS_CORE::ScopedFileHandle held = holdAlone(dumpFile());
    ASSERT_TRUE(held);
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(test::textOf(ERROR_SHARING_VIOLATION)));
    EXPECT_EQ(history(), historyLine());
    held = holdAlone(historyFile());
    ASSERT_TRUE(held);
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
}

TEST(WrittenDump, IsCutOffOrNoFile) {
    const test::TempDir directory;
    const NS_CORE::ScopedFileHandle file(::CreateFileW(
        (directory.path() / "dump").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    EXPECT_EQ(NS_CORE::errorOfWrittenDump(file.get()), DWORD{ERROR_DISK_FULL});
    EXPECT_EQ(NS_CORE::errorOfWrittenDump(INVALID_HANDLE_VALUE), DWORD{ERROR_INVALID_HANDLE});
}

// Calls a function of the runtime library with an argument that it refuses, under guard.
int callWithBadArgument() {
    char program[] = "program";
    char* argv[] = {program, nullptr};
    return NS_CORE::guard(1, argv, [](int, char**) { return int{::fopen_s(nullptr, "file", "r")}; });
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
    char program[] = "program";
    char word[] = "jitd";
    char* argv[] = {program, word, nullptr};
    NS_CORE::guard(2, argv, [](int, char**) { return 0; });
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
    EXPECT_EQ(runGuarded([](void*) {}, &noteException, &filtered), SehOutcome::Returned);
    for (int round = 1; round <= 1000; ++round) {
        ASSERT_EQ(runGuarded(&raise, &noteException, &filtered), SehOutcome::Caught);
        ASSERT_EQ(filtered.calls, round);
        ASSERT_EQ(filtered.code, kCode);
    }
}

TEST(RunGuarded, LeavesToTheOuterGuardWhatItsFilterDoesNotWant) {
    Filtered outer;
    const auto body = [](void*) {
        Filtered inner;
        inner.verdict = SehVerdict::ContinueSearch;
        runGuarded(&raise, &noteException, &inner);
        ADD_FAILURE() << "the inner guard caught it";
    };
    EXPECT_EQ(runGuarded(body, &noteException, &outer), SehOutcome::Caught);
    EXPECT_EQ(outer.calls, 1);
    EXPECT_EQ(outer.code, kCode);
    // The chain is whole again.
    EXPECT_EQ(runGuarded(&raise, &noteException, &outer), SehOutcome::Caught);
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
    EXPECT_THROW(runGuarded([](void*) { throw 1; }, &noteException, &filtered), int);
    EXPECT_EQ(filtered.calls, 0);
    // The chain is whole again.
    EXPECT_EQ(runGuarded(&raise, &noteException, &filtered), SehOutcome::Caught);
}

} // namespace
