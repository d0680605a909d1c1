#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/semaphore.h"
#include "tests/utl/utl_service_fixture.h"
#include "utl/utl_processutils.h"
#include "utl/utl_service.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;

TEST_F(ServiceTest, InstallFailsWithoutAManager) {
    makeHost({}, {});
    EXPECT_EQ(run({"program", "service-install", "service-console"}), 1);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"WARN UTL::Service::install - failed to open service manager: Function not implemented",
                     "WARN UTL::Service::run - failed to install service 'quorkeri_test_service' running '" +
                         test::thisProgram() + "'"}));
}

TEST_F(ServiceTest, RemoveFailsWithoutAManager) {
    makeHost({}, {});
    EXPECT_EQ(run({"program", "service-remove"}), 1);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"WARN UTL::Service::remove - failed to open service manager: Function not implemented",
                     "WARN UTL::Service::run - failed to remove service 'quorkeri_test_service'"}));
}

TEST_F(ServiceTest, ServiceModeFailsWithoutAManager) {
    makeHost({}, {});
    m_host->setServiceManager(ServiceManagerCalls::platform());
    EXPECT_EQ(run({"program"}), 1);
    EXPECT_EQ(m_journal.entries(),
              Lines{"CRIT UTL::Service::runService - failed to start service control dispather for "
                    "'quorkeri_test_service': Function not implemented"});
}

TEST_F(ServiceTest, ConsoleModeAnswersInterruptAndTerminateWhileTheWorkGoesOn) {
    test::Semaphore stopped;
    std::thread::id stopThread;
    makeHost(
        [&](int, char**) {
            ::kill(::getpid(), SIGINT);
            stopped.acquire();
            ::kill(::getpid(), SIGTERM);
            stopped.acquire();
            return 5;
        },
        [&] {
            stopThread = std::this_thread::get_id();
            m_journal.add("stop");
            stopped.release();
        });
    EXPECT_EQ(run({"program", "service-console"}), 5);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::signalHandler - 2", "stop", "INFO UTL::Service::signalHandler - 15", "stop"}));
    EXPECT_NE(stopThread, std::this_thread::get_id());
}

TEST_F(ServiceTest, ConsoleModePutsTheHandlersBackWhateverEndsIt) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGINT, &ignore, nullptr), 0);
    makeHost({}, [] {});
    EXPECT_THROW(run({"program", "service-console"}), std::bad_function_call);
    struct sigaction after = {};
    ASSERT_EQ(::sigaction(SIGINT, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, SIG_IGN);
    ASSERT_EQ(::sigaction(SIGTERM, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, SIG_DFL);
}

// The signal may interrupt any thread at any point, in the logger's lock too.
TEST_F(ServiceTest, ConsoleModeAnswersTwoHundredSignalsWhileOtherThreadsLog) {
    constexpr int kSignals = 200;
    test::Semaphore stopped;
    int stops = 0; // of the answering thread
    makeHost(
        [&](int, char**) {
            std::atomic<bool> isDone{false};
            std::thread logger([&isDone] {
                while (!isDone) MLOG(Info, "Other", "%s", std::string(100, 'x'));
            });
            for (int i = 0; i < kSignals; ++i) {
                ::kill(::getpid(), i % 2 == 0 ? SIGINT : SIGTERM);
                MLOG(Info, "Main", "signal %d", i);
                stopped.acquire();
            }
            isDone = true;
            logger.join();
            return 0;
        },
        [&] {
            ++stops;
            stopped.release();
        });
    EXPECT_EQ(run({"program", "service-console"}), 0);
    EXPECT_EQ(stops, kSignals);
    int answered = 0;
    for (const std::string& entry : m_journal.entries()) {
        if (entry.starts_with("INFO UTL::Service::signalHandler - ")) ++answered;
    }
    EXPECT_EQ(answered, kSignals);
}

// Exit codes of a child that says which check failed: the line, or 0 for none and 255 for more than one.
int failedLine(const test::HookRecorder& hook) {
    const std::vector<test::FailedCheck> failures = hook.failures();
    if (failures.empty()) return 0;
    const test::FailedCheck& last = failures.back();
    return last.file == "utl_service" && last.message.empty() ? last.line : 255;
}

// The child's own directory goes away while it runs.
const test::ChildProgram g_homeless("service_homeless", [](const std::vector<std::string>& arguments) {
    const test::HookRecorder hook;
    fs::remove_all(arguments.at(0));
    const Service host("", "name", "display", "/tmp", "unused.log", {}, {});
    NS_CORE::MasterLogger::setImplementation(nullptr);
    return failedLine(hook);
});

TEST_F(ServiceTest, FailsACheckWhenTheProgramsDirectoryCannotBeEntered) {
    const fs::path directory = m_logs.path() / "home";
    fs::create_directory(directory);
    fs::copy_file(test::thisProgram(), directory / "program");
    unsigned long exitCode = 0;
    const std::string line =
        test::childCommandLineOf((directory / "program").string(), "service_homeless", {directory.string()});
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), ProcessUtils::Result::Finished);
    EXPECT_EQ(exitCode, 34UL);
}

const test::ChildProgram g_deep("service_deep", [](const std::vector<std::string>& /*arguments*/) {
    const test::HookRecorder hook;
    Service host("", "name", "display", "/tmp", "unused.log", {}, {});
    NS_CORE::MasterLogger::setImplementation(nullptr);
    std::string words[] = {"program", "service-install"};
    char* argv[] = {words[0].data(), words[1].data(), nullptr};
    return host.run(2, argv) == 1 ? failedLine(hook) : 254;
});

TEST_F(ServiceTest, FailsACheckWhenTheProgramsPathIsTooLongToInstall) {
    fs::path directory = m_logs.path();
    while (directory.string().size() < 1100) directory /= std::string(100, 'd');
    fs::create_directories(directory);
    fs::copy_file(test::thisProgram(), directory / "program");
    unsigned long exitCode = 0;
    const std::string line = test::childCommandLineOf((directory / "program").string(), "service_deep");
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), ProcessUtils::Result::Finished);
    EXPECT_EQ(exitCode, 70UL);
}

} // namespace
} // namespace NS_UTL
