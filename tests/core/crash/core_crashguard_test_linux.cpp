#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <thread>

#include "absl/cleanup/cleanup.h"
#include "core/crash/core_crashguard.h"
#include "core/files/core_scopedfd.h"
#include "tests/core/crash/crash_fixture.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/planted_code.h"

namespace test {
namespace {

// To some hundred kilobytes, with pages of which no two neighbours are alike.
void enlargeMemoryMap() {
    constexpr size_t kPage = 4096;
    constexpr size_t kPages = 6000;
    void* const memory = ::mmap(nullptr, kPages * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (size_t page = 0; page < kPages; page += 2)
        ::mprotect(static_cast<char*>(memory) + page * kPage, kPage, PROT_READ);
}

// Prints it if programs that are started meanwhile would inherit the file of the memory map.
void complainIfMapsAreInherited() {
    int flags = -1;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone).filename() == "maps")
            flags = ::fcntl(std::stoi(entry.path().filename()), F_GETFD);
    }
    if (flags != FD_CLOEXEC) std::printf("the memory map's flags: %d\n", flags);
}

// As if 600000 of the million seconds were over that the report has without progress.
void passMostOfTheTime() {
    constexpr unsigned kMost = 600'000;
    const unsigned left = ::alarm(0);
    if (left <= kMost)
        ::raise(SIGALRM);
    else
        ::alarm(left - kMost);
}

// In the place of symbolReader().
void* findNothingInMostOfTheTime() {
    passMostOfTheTime();
    return nullptr;
}

} // namespace

const bool kContinuesAfterHang = true;

const uint32_t kErrorOfDirectoryInPlace = EISDIR;

const Preparations& platformPreparations() {
    // The handler walks the stack with it.
    static void* const walker = reinterpret_cast<void*>(&_Unwind_Backtrace);
    static const Preparations all{
        {"writer-faults", [] { overwrite(symbolReader(), kFault); }},
        {"writer-hangs", [] { overwrite(symbolReader(), kHang); }},
        // Its dump is long and goes where it is taken slowly, ten seconds altogether.
        {"writer-slow",
         [] {
             enlargeMemoryMap();
             std::filesystem::create_directories("work/dumps");
             const NS_CORE::CrashNames names = NS_CORE::crashNames("core_tests");
             ::mkfifo(names.dumpFile.c_str(), 0600);
             std::thread([path = std::string(names.dumpFile.view())] {
                 const NS_CORE::ScopedFd fifo(::open(path.c_str(), O_RDWR | O_CLOEXEC));
                 ::fcntl(fifo.get(), F_SETPIPE_SZ, 4096);
                 char bytes[4096];
                 for (int pieces = 0; ::read(fifo.get(), bytes, sizeof(bytes)) > 0; ++pieces) {
                     if (pieces < 40) std::this_thread::sleep_for(std::chrono::milliseconds(250));
                     if (pieces == 20) complainIfMapsAreInherited();
                 }
             }).detach();
         }},
        // Every step of the report, and the way out, take most of their time.
        {"time-flies",
         [] {
             overwrite(symbolReader(), jumpTo(reinterpret_cast<void*>(&findNothingInMostOfTheTime)));
             setImplementation([](const std::string& /*record*/) { passMostOfTheTime(); });
             std::atexit([] {
                 itimerval left;
                 ::getitimer(ITIMER_REAL, &left);
                 // To the next hundred, for the time since the timer was started.
                 std::printf("%ld s left\n", (left.it_value.tv_sec / 100 + 1) * 100);
             });
         }},
        {"library-held", &holdSymbolLibrary},
        // As kill sends it, but to this thread.
        {"killed",
         [] {
             siginfo_t info{};
             std::thread([&] { ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), ::gettid(), SIGBUS, &info); }).join();
         }},
        {"walker-faults", [] { overwrite(walker, kFault); }},
        {"walker-hangs", [] { overwrite(walker, kHang); }},
    };
    return all;
}

} // namespace test

namespace {

namespace fs = std::filesystem;

class CrashDump : public CrashTest {
protected:
    std::string dumpOf(const std::string& act) {
        EXPECT_EQ(run({.act = act}), test::kCrashExitCode);
        return test::readFile(dumpFile());
    }

    // Where the line with both texts begins; npos if there is none.
    static size_t findLine(const std::string& dump, const std::string& start, const std::string& part) {
        std::istringstream stream(dump);
        size_t position = 0;
        for (std::string line; std::getline(stream, line); position += line.size() + 1) {
            if (line.starts_with(start) && line.find(part) != std::string::npos) return position;
        }
        return std::string::npos;
    }
};

TEST_F(CrashDump, NamesProgramSignalAndAddress) {
    const std::string dump = dumpOf("wild");
    EXPECT_TRUE(dump.starts_with("core_tests " + std::string(m_names.version) +
                                 "\nSIGSEGV (code 1) at address 0x12345678\n#01 in "))
        << dump;
}

TEST_F(CrashDump, KeepsTheAddressesWhereNamesCannotBeFound) {
    EXPECT_EQ(run({.act = "illegal", .preparation = "writer-faults"}), test::kCrashExitCode);
    EXPECT_EQ(m_output, written()); // the addresses were written before names were asked for
    EXPECT_EQ(history(), historyLine());
    const std::string dump = test::readFile(dumpFile()).substr(0, 4000);
    EXPECT_TRUE(
        std::regex_search(dump, std::regex("^signal 0x4 at address (0x[0-9a-f]+\n)\\1(0x[0-9a-f]+\n){3,}[0-9a-f]+-")))
        << dump;
    EXPECT_FALSE(std::regex_search(dump, std::regex("\n(0x[0-9a-f]+\n)(0x[0-9a-f]+\n)*\\1")))
        << "a call twice: " << dump;
    fs::remove(dumpFile());
    fs::create_directory(dumpFile());
    EXPECT_EQ(run({.preparation = "writer-faults"}), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(EISDIR));
}

// Each of them has the whole patience, but not more.
TEST_F(CrashDump, CallsStepsAndTheWayOutMayTakeMostOfThePatienceEach) {
    EXPECT_EQ(run({.preparation = "time-flies", .patienceMs = 1'000'000'000}), test::kCrashExitCode);
    EXPECT_EQ(m_output, written() + "1000000 s left\n");
    EXPECT_TRUE(test::readFile(dumpFile()).starts_with("core_tests ")) << "names were not waited for";
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashDump, ListsTheFaultItsCallersAndTheMemoryMap) {
    ::umask(0);
    const std::string dump = dumpOf("null");
    EXPECT_EQ(fs::status(dumpFile()).permissions(), fs::perms(0644));
    EXPECT_EQ(fs::status(dumps()).permissions(), fs::perms(0755));
    const size_t fault = findLine(dump, "#01 in ", "writeNull() at crash_kinds.cpp:");
    const size_t guard = findLine(dump, "#", "CrashGuard::run() at core_crashguard_linux.cpp:");
    const size_t outermost = findLine(dump, "#", " in main() at test_main.cpp:");
    const size_t maps = dump.find("\n\n");
    EXPECT_LT(fault, guard) << dump;
    EXPECT_LT(guard, outermost) << dump;
    EXPECT_LT(outermost, maps) << dump;
    EXPECT_EQ(dump.find('\n', findLine(dump, "#", " in _start() (core_tests)")), maps) << "not the last one: " << dump;
    ASSERT_NE(maps, std::string::npos) << dump;
    EXPECT_NE(dump.find("/core_tests\n", maps), std::string::npos) << dump;
    EXPECT_NE(dump.find("[stack]\n", maps), std::string::npos) << dump;
}

TEST_F(CrashDump, ShowsWhoThrewWhatNobodyCatches) {
    const std::string dump = dumpOf("exception");
    EXPECT_NE(dump.find("\nSIGABRT (code -6) at address "), std::string::npos) << dump;
    EXPECT_NE(findLine(dump, "#", "throwUncaught() at crash_kinds.cpp:"), std::string::npos) << dump;
}

TEST_F(CrashDump, ShowsTheInnermostCallsOfAnOverflowedStack) {
    const std::string dump = dumpOf("overflow");
    EXPECT_NE(findLine(dump, "#01 in ", "overflowStack() at crash_kinds.cpp:"), std::string::npos) << dump;
    EXPECT_NE(findLine(dump, "#200 in ", "overflowStack() at crash_kinds.cpp:"), std::string::npos) << dump;
    // 256 at most, and the first of them are the handler's.
    EXPECT_EQ(findLine(dump, "#255 in ", ""), std::string::npos) << dump;
}

TEST_F(CrashTest, DoesNotCoverASignalToAnotherThread) {
    const bool isSanitized = test::kUnhandledFaultExitCode > 0;
    EXPECT_EQ(run({.preparation = "killed"}), isSanitized ? test::kUnhandledFaultExitCode : -SIGBUS);
    EXPECT_FALSE(fs::exists(dumpFile()));
}

TEST(RunGuarded, LeavesSignalsAsTheyWere) {
    const auto state = [] {
        stack_t stack;
        struct sigaction action;
        ::sigaltstack(nullptr, &stack);
        ::sigaction(SIGSEGV, nullptr, &action);
        return std::pair(stack.ss_flags, action.sa_handler);
    };
    const auto before = state();
    EXPECT_EQ(NS_CORE::guard(0, nullptr, [](int, char**) { return 7; }), 7);
    EXPECT_EQ(state(), before);
}

const test::ChildProgram g_handledBefore("handled-before", [](const auto&) {
    struct sigaction action{};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t* info, void*) { ::_exit(info->si_code == SEGV_MAPERR ? 7 : 8); };
    ::sigaction(SIGSEGV, &action, nullptr);
    return NS_CORE::guard(0, nullptr, [](int, char**) {
        std::thread([] { test::crash("null"); }).join();
        return 0;
    });
});

TEST(RunGuarded, LeavesAnotherThreadsFaultToTheEarlierHandlerAsItIs) {
    EXPECT_EQ(test::SelfProcess("handled-before", {}).wait(), 7);
}

// Mounts a small file system in place of the dumps directory, for this process and its children.
[[nodiscard]] bool mountSmallDisk(const fs::path& directory, unsigned long flags) {
    fs::create_directories(directory);
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("small", directory.c_str(), "tmpfs", flags, "size=4096") == 0;
}

TEST_F(CrashTest, ADiskThatFillsUpOrIsReadOnlyIsLogged) {
    for (const auto& [flags, error] : {std::pair(0UL, ENOSPC), {MS_RDONLY, EROFS}}) {
        if (!mountSmallDisk(dumps(), flags)) GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
        EXPECT_EQ(run({}), test::kCrashExitCode);
        EXPECT_EQ(m_output, failed(static_cast<uint32_t>(error)));
        EXPECT_EQ(history(), historyLine());
        EXPECT_EQ(::umount(dumps().c_str()), 0);
        fs::remove(historyFile());
    }
}

TEST_F(CrashTest, AFullDiskUnderTheHistoryCostsNothingElse) {
    fs::create_symlink("/dev/full", historyFile());
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
}

// Opening a pipe waits for somebody at its other end. The child inherits the blocked signal.
TEST_F(CrashTest, FilesThatDoNotOpenAreGivenUp) {
    sigset_t alarm;
    sigset_t before;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_BLOCK, &alarm, &before);
    const absl::Cleanup restore = [&before] { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); };
    ASSERT_EQ(::mkfifo(historyFile().c_str(), 0600), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run({.patienceMs = kImpatienceMs}), test::kCrashExitCode);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kImpatienceMs));
    EXPECT_EQ(m_output, written());
    fs::remove(historyFile());
    fs::remove(dumpFile());
    // In the signal handler.
    ASSERT_EQ(::mkfifo(dumpFile().c_str(), 0600), 0);
    expectCrash({.patienceMs = kImpatienceMs}, false);
    EXPECT_EQ(m_output, failed(EFAULT));
}

// The thread sanitizer delays signals in code that makes no calls, and walks stacks itself.
#if !defined(__SANITIZE_THREAD__)
TEST_F(CrashTest, AHandlerThatFaultsOrHangsStillLeavesTheLines) {
    for (const char* kind : {"walker-faults", "walker-hangs"}) {
        expectCrash({.preparation = kind, .patienceMs = kImpatienceMs}, false);
        EXPECT_EQ(m_output, failed(EFAULT)) << kind;
    }
}
#endif

} // namespace
