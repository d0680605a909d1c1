#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "service/supervision.h"
#include "tests/support/log_recorder.h"
#include "tests/support/semaphore.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_service.h"

namespace service {
namespace {

// The whole of console mode but for the companion, while another thread logs without a pause.
class ConsoleTest : public testing::Test {
protected:
    ConsoleTest()
        : m_supervisor({[] {}, [this](const char*) { m_start(); }}, /*restartDelayMs=*/2000),
          m_host(
              "", "name", "display", m_dir.file(""), "unused.log",
              [this](int argc, char** argv) { return m_supervisor.run(argc, argv); },
              [this] {
                  m_supervisor.stop();
                  m_stopped.release();
              }) {}

    int runInConsole() {
        std::atomic<bool> isDone{false};
        std::thread logger([&isDone] {
            while (!isDone) MLOG(Info, "Other", "%s", std::string(100, 'x'));
        });
        std::string words[] = {"program", "service-console"};
        char* argv[] = {words[0].data(), words[1].data(), nullptr};
        const int result = m_host.run(2, argv);
        isDone = true;
        logger.join();
        return result;
    }

    // One after the other, each answered: signals that wait together count as one.
    void sendSignals(int number) {
        for (int i = 0; i < number; ++i) {
            ::kill(::getpid(), i % 2 == 0 ? SIGTERM : SIGINT);
            m_stopped.acquire();
        }
    }

    size_t count(const std::string& line) const { return static_cast<size_t>(std::ranges::count(m_log.lines(), line)); }

    test::TempDir m_dir;
    std::function<void()> m_start;
    test::Semaphore m_stopped;
    Supervisor m_supervisor;
    NS_UTL::Service m_host;
    test::LogRecorder m_log; // after the host, which installs its own
};

TEST_F(ConsoleTest, AnswersTwoHundredSignalsWhileItWaitsForTheCompanion) {
    m_start = [this] { sendSignals(200); };
    EXPECT_EQ(runInConsole(), 0);
    EXPECT_EQ(count("INFO Stop - Stop"), 200U);
    EXPECT_EQ(count("INFO UTL::Service::signalHandler - 15"), 100U);
    EXPECT_EQ(count("INFO UTL::Service::signalHandler - 2"), 100U);
    EXPECT_EQ(count("WARN Run - Run: 'quorkeri_wrapper.exe' failed"), 0U);
}

TEST_F(ConsoleTest, AnswersSignalsDuringThePause) {
    int starts = 0;
    m_start = [&starts] { ++starts; };
    std::thread sender([this] {
        while (count("WARN Run - Run: 'quorkeri_wrapper.exe' failed") == 0) std::this_thread::yield();
        sendSignals(10); // few, because the handlers are gone when the pause is over
    });
    EXPECT_EQ(runInConsole(), 0);
    sender.join();
    EXPECT_EQ(starts, 1);
    EXPECT_EQ(count("INFO Stop - Stop"), 10U);
}

} // namespace
} // namespace service
