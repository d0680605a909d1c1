#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/refused_call_linux.h"
#include "tests/support/self_process.h"
#include "tests/support/semaphore.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_signal.h"

namespace NS_UTL {
namespace {

using Lines = std::vector<std::string>;

std::vector<int> g_order; // written by the answering thread alone
test::Semaphore g_answered;
std::thread::id g_answeringThread;
bool g_takesNoSignals = false; // the answering thread
test::Semaphore g_goOn;

void answerAndTell(int signum) {
    g_order.push_back(signum);
    g_answeringThread = std::this_thread::get_id();
    sigset_t blocked;
    g_takesNoSignals = ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked) == 0 && ::sigismember(&blocked, SIGHUP) == 1;
    g_answered.release();
}

void answerSlowly(int /*signum*/) {
    g_answered.release();
    g_goOn.acquire();
    g_order.push_back(0);
}

void answerFirstSlowly(int signum) {
    if (g_order.empty()) g_goOn.acquire();
    g_order.push_back(signum);
    g_answered.release();
}

// Cases may share a process: each begins with what the handlers recorded empty.
class LinuxSignalTest : public testing::Test {
protected:
    LinuxSignalTest() {
        g_order.clear();
        for (test::Semaphore* semaphore : {&g_answered, &g_goOn})
            while (semaphore->acquireWithin(std::chrono::milliseconds(0))) continue;
    }
};

size_t threadCount() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
}

// In a process of its own, because the pipe stays for the objects that come later.
const test::ChildProgram g_withoutPipe("signal_without_pipe", [](const auto&) -> int {
    const test::LogRecorder log;
    test::refuseCall(SYS_pipe2, EMFILE);
    const Signal signal(SIGTERM, &answerAndTell);
    std::_Exit(log.lines() == Lines{"WARN UTL::Signal::Signal - failed to install signal handler for 15"} ? 0 : 1);
});

TEST(LinuxSignalStartTest, LogsThatThereIsNoPipe) {
    EXPECT_EQ(test::SelfProcess("signal_without_pipe").wait(), 0);
}

TEST_F(LinuxSignalTest, LogsAHandlerThatCannotBePutBack) {
    test::LogRecorder log;
    std::thread([] {
        const Signal signal(SIGTERM, &answerAndTell);
        test::refuseCall(SYS_rt_sigaction, EPERM);
    }).join();
    EXPECT_EQ(log.lines(), Lines{"WARN UTL::Signal::~Signal - failed to restore signal handler for 15"});
}

TEST_F(LinuxSignalTest, AnswersOnAThreadOfItsOwnInTheOrderOfArrivalAndStaysInstalled) {
    const std::vector<int> raised = {SIGINT, SIGHUP, SIGINT};
    {
        const Signal first(SIGHUP, &answerAndTell);
        const Signal second(SIGINT, &answerAndTell);
        static_cast<void>(Signal(SIGHUP, [](int) { g_answered.release(); })); // is over
        for (const int signum : raised) ::raise(signum);
        for (size_t i = 0; i < raised.size(); ++i) g_answered.acquire();
    }
    EXPECT_EQ(g_order, raised);
    EXPECT_NE(g_answeringThread, std::this_thread::get_id());
    EXPECT_TRUE(g_takesNoSignals);
}

bool isAsleep(pid_t thread) {
    const std::string stat = test::readFile("/proc/self/task/" + std::to_string(thread) + "/stat");
    return stat.find(") S ") != std::string::npos;
}

TEST_F(LinuxSignalTest, WaitsForAHandlerThatIsAtWorkAndDropsWhatIsUnanswered) {
    std::atomic<bool> isEnding{false};
    std::atomic<bool> ended{false};
    std::thread other;
    {
        const Signal signal(SIGTERM, &answerSlowly);
        for (int i = 0; i < 2; ++i) ::raise(SIGTERM);
        g_answered.acquire();
        other = std::thread([&, thread = ::gettid()] {
            while (!isEnding || !isAsleep(thread)) std::this_thread::yield();
            EXPECT_FALSE(ended);
            for (int i = 0; i < 2; ++i) g_goOn.release();
        });
        isEnding = true;
    }
    ended = true;
    other.join();
    EXPECT_EQ(g_order, std::vector<int>{0});
}

TEST_F(LinuxSignalTest, LeavesNoThreadBehind) {
    // The thread sanitizer adds a thread of its own to the first one.
    std::thread([] {}).join();
    const size_t before = threadCount();
    {
        const Signal first(SIGTERM, &answerAndTell);
        const Signal second(SIGINT, &answerAndTell);
        EXPECT_EQ(threadCount(), before + 1);
    }
    const test::LogRecorder log;
    for (int i = 0; i < 2; ++i) const Signal refused(SIGKILL, &answerAndTell);
    EXPECT_EQ(log.lines(), Lines(2, "WARN UTL::Signal::Signal - failed to install signal handler for 9"));
    // A joined thread may be seen for a moment longer.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (threadCount() != before && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    EXPECT_EQ(threadCount(), before);
}

TEST_F(LinuxSignalTest, PutsTheWholePreviousActionBack) {
    struct sigaction before = {};
    before.sa_handler = SIG_IGN;
    before.sa_flags = SA_NODEFER;
    ASSERT_EQ(::sigaction(SIGINT, &before, nullptr), 0);
    struct sigaction after = {};
    {
        const Signal signal(SIGINT, &answerAndTell);
        // Asked of the kernel, not tried: the thread sanitizer keeps a signal back from a thread in a blocking call.
        ASSERT_EQ(::sigaction(SIGINT, nullptr, &after), 0);
        EXPECT_NE(after.sa_flags & SA_RESTART, 0) << "calls that it interrupts go on";
    }
    ASSERT_EQ(::sigaction(SIGINT, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, SIG_IGN);
    EXPECT_NE(after.sa_flags & SA_NODEFER, 0);
}

// More signals than the way to the answering thread holds: the rest is dropped, nobody waits, and whatever was
// interrupted sees nothing of it in errno.
TEST_F(LinuxSignalTest, LeavesErrnoAloneAndDoesNotWaitWhenTooManySignalsAreUnanswered) {
    constexpr int kTooMany = 70000;
    {
        const Signal signal(SIGTERM, &answerFirstSlowly);
        errno = 0;
        for (int i = 0; i < kTooMany; ++i) ::raise(SIGTERM);
        EXPECT_EQ(errno, 0);
        g_goOn.release();
        for (int i = 0; i < 60000; ++i) g_answered.acquire();
    }
    EXPECT_LT(g_order.size(), size_t{kTooMany});
}

} // namespace
} // namespace NS_UTL
