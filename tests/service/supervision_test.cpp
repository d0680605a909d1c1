#include "service/supervision.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "tests/service/process_gauge.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/semaphore.h"
#include "tests/support/udp_receiver.h"

// What supervision does in each state when each event comes. "-" cannot happen. To supervision a start that fails is a
// companion that ends at once; tests/system/supervision_test.cpp has real ones of each kind.
//
//                    companion ends   start fails       stop                           pause over
//     deploying      -                -                 lost; datagram sent            -
//     companion runs warn, pause      -                 end at the companion's end     -
//     start fails    -                warn, pause       end, no warning                -
//     pausing        -                -                 end when the pause is over     start again
namespace service {
namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using std::chrono::milliseconds;

constexpr const char* kRunning = "INFO Run - Running";
constexpr const char* kStop = "INFO Stop - Stop";
constexpr const char* kFailed = "WARN Run - Run: 'quorkeri_wrapper.exe' failed";

constexpr uint32_t kShortDelayMs = 50;
static_assert(Supervisor::kRestartDelayMs == 5000);

// Supervision on a thread of its own, with steps that wait for the test's word. Each step tells when it has begun.
class SupervisionTest : public testing::Test {
protected:
    ~SupervisionTest() override {
        if (m_thread.joinable()) m_thread.join();
    }

    void begin(uint32_t delayMs = kShortDelayMs) {
        m_supervisor =
            std::make_unique<Supervisor>(Supervisor::Steps{[this] { deploy(); },
                                                           [this](const char* commandLine) {
                                                               EXPECT_STREQ(commandLine, "quorkeri_wrapper.exe");
                                                               start();
                                                           }},
                                         delayMs);
        m_thread = std::thread([this] { m_result = m_supervisor->run(0, nullptr); });
        m_deploying.acquire();
    }
    void beginWithCompanion(uint32_t delayMs = kShortDelayMs) {
        begin(delayMs);
        m_deployed.release();
        m_started.acquire();
    }
    // The pause has begun when its warning is there.
    void awaitPause(size_t warnings = 1) {
        while (static_cast<size_t>(std::ranges::count(m_log.lines(), kFailed)) < warnings) std::this_thread::yield();
    }
    void awaitEnd() {
        m_thread.join();
        EXPECT_EQ(m_result, 0);
    }

    test::HookRecorder m_hook;
    test::LogRecorder m_log;
    test::UdpReceiver m_companionPort{34002};
    test::Semaphore m_deploying; // told by the steps ...
    test::Semaphore m_started;
    test::Semaphore m_deployed; // ... and by the test
    test::Semaphore m_ended;
    std::atomic<int> m_starts{0};
    std::unique_ptr<Supervisor> m_supervisor;
    std::thread m_thread;
    std::atomic<int> m_result{-1};

private:
    void deploy() {
        m_deploying.release();
        m_deployed.acquire();
    }
    void start() {
        ++m_starts;
        m_started.release();
        m_ended.acquire();
    }
};

TEST_F(SupervisionTest, DeployingAndStopIsLostButTheDatagramIsSent) {
    begin();
    m_supervisor->stop();
    EXPECT_EQ(m_companionPort.receive().bytes.size(), 10U);
    m_deployed.release();
    m_started.acquire();
    m_ended.release();
    m_started.acquire(); // and again: nothing of the request is left
    m_supervisor->stop();
    m_ended.release();
    awaitEnd();
    EXPECT_EQ(m_log.lines(), (Lines{kRunning, kStop, kFailed, kStop}));
}

TEST_F(SupervisionTest, CompanionRunsAndEndsIsStartedAgainAfterThePause) {
    beginWithCompanion();
    const Clock::time_point before = Clock::now();
    m_ended.release();
    m_started.acquire();
    EXPECT_GE(Clock::now() - before, milliseconds(kShortDelayMs));
    m_supervisor->stop();
    m_ended.release();
    awaitEnd();
    EXPECT_EQ(m_log.lines(), (Lines{kRunning, kFailed, kStop}));
}

TEST_F(SupervisionTest, CompanionRunsAndStopEndsWhenTheCompanionEnds) {
    beginWithCompanion();
    m_supervisor->stop();
    const test::Datagram datagram = m_companionPort.receive();
    EXPECT_EQ(datagram.bytes.size(), 10U);
    EXPECT_EQ(datagram.senderAddress, "127.0.0.1");
    EXPECT_EQ(m_result, -1) << "does not wait for the companion";
    m_ended.release();
    awaitEnd();
    EXPECT_EQ(m_starts, 1);
    EXPECT_EQ(m_log.lines(), (Lines{kRunning, kStop}));
}

TEST_F(SupervisionTest, CompanionRunsAndTwoStopsSendTwoDatagrams) {
    beginWithCompanion();
    m_supervisor->stop();
    m_supervisor->stop();
    EXPECT_EQ(m_companionPort.receive().bytes.size(), 10U);
    EXPECT_EQ(m_companionPort.receive().bytes.size(), 10U);
    m_ended.release();
    awaitEnd();
    EXPECT_EQ(m_log.lines(), (Lines{kRunning, kStop, kStop}));
}

TEST_F(SupervisionTest, PausingAndStopEndsWhenThePauseIsOverWithoutAnotherStart) {
    beginWithCompanion(/*delayMs=*/300);
    const Clock::time_point before = Clock::now();
    m_ended.release();
    awaitPause();
    m_supervisor->stop();
    EXPECT_EQ(m_companionPort.receive().bytes.size(), 10U);
    awaitEnd();
    EXPECT_GE(Clock::now() - before, milliseconds(300));
    EXPECT_EQ(m_starts, 1);
    EXPECT_EQ(m_log.lines(), (Lines{kRunning, kFailed, kStop}));
}

TEST_F(SupervisionTest, StopBeforeTheWorkBeginsIsLost) {
    Supervisor::Steps steps{[] {},
                            [this](const char*) {
                                if (++m_starts == 2) m_supervisor->stop();
                            }};
    m_supervisor = std::make_unique<Supervisor>(std::move(steps), /*restartDelayMs=*/0);
    m_supervisor->stop();
    EXPECT_EQ(m_supervisor->run(0, nullptr), 0);
    EXPECT_EQ(m_log.lines(), (Lines{kStop, kRunning, kFailed, kStop}));
}

const test::ChildProgram g_ends("supervision_ends",
                                [](const std::vector<std::string>& arguments) { return std::stoi(arguments.at(0)); });

TEST(RestartTest, RestartsLeaveNothingBehind) {
    // Not recorded: the records would be the memory that grows.
    NS_CORE::MasterLogger::setImplementation(nullptr);
    constexpr int kWarmUp = 20;
    // scripts/bench-service asks for more.
    const char* const asked = std::getenv("QUORKERI_RESTARTS");
    const int restarts = asked ? std::atoi(asked) : 100;
    const std::string commandLine = test::childCommandLine("supervision_ends", {"0"});
    const Supervisor::Steps production = Supervisor::Steps::production();
    Supervisor(production).stop(); // what the socket library makes once
    test::ProcessGauge before = {};
    int starts = 0;
    Supervisor supervisor({[] {},
                           [&](const char*) {
                               if (++starts == kWarmUp) before = test::ProcessGauge::read();
                               if (starts == kWarmUp + restarts) supervisor.stop();
                               production.start("no-such-program");
                               production.start(commandLine.c_str());
                           }},
                          /*restartDelayMs=*/0);
    EXPECT_EQ(supervisor.run(0, nullptr), 0);
    const test::ProcessGauge after = test::ProcessGauge::read();
    EXPECT_EQ(after.handles, before.handles);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_LE(after.memoryBytes, before.memoryBytes + 64 * 1024);
    if (asked) {
        std::printf("%d restarts: handles %+lld, threads %+lld, memory %+lld bytes\n", restarts,
                    static_cast<long long>(after.handles) - static_cast<long long>(before.handles),
                    static_cast<long long>(after.threads) - static_cast<long long>(before.threads),
                    static_cast<long long>(after.memoryBytes) - static_cast<long long>(before.memoryBytes));
    }
}

} // namespace
} // namespace service
