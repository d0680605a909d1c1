#include "utl/utl_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "core/files/core_wrapper.h"
#include "core/net/core_socket.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/semaphore.h"
#include "tests/utl/utl_service_fixture.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;

// The system's error where a program asks for a service's work that no manager has started.
constexpr uint32_t kNotStartedByAManager = fs::path::preferred_separator == '/' ? ENOSYS : 1063;

fs::path programDirectory() {
    const std::string path = test::thisProgram();
    return fs::path(std::u8string(path.begin(), path.end())).parent_path();
}

Service hostWithAnchor(const std::string& anchor, const std::string& logDirectory) {
    return Service(anchor, "name", "display", logDirectory, "service.log", {}, {});
}

TEST_F(ServiceTest, StatusHoldsZeroesAtConstruction) {
    EXPECT_EQ(makeHost({}, {}).status(), ServiceStatus{});
}

TEST_F(ServiceTest, WorksInTheProgramsDirectoryOrAboveTheAnchor) {
    const fs::path directory = programDirectory();
    for (const auto& [anchor, expected] :
         {std::pair(std::string(), directory), std::pair(directory.filename().string(), directory.parent_path())}) {
        const Service host = hostWithAnchor(anchor, m_logs.file(""));
        EXPECT_TRUE(fs::equivalent(fs::current_path(), expected)) << anchor;
    }
}

TEST_F(ServiceTest, FailsACheckForAnAnchorThatIsNotThereAndGoesOn) {
    const fs::path before = fs::current_path();
    // The log file is installed afterwards, where the working directory has taken it.
    const test::LogRecorder log;
    const Service host = hostWithAnchor("bin", m_logs.file(""));
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(m_hook.single(), (test::FailedCheck{"CHECKF", "utl_service", 41, 0, "bin"}));
    EXPECT_EQ(fs::current_path(), before);
}

// How it logs and rotates is utl_filelogger_test.cpp's, and failing_service_test.cpp's with a host.
static_assert(Service::kLogFileLimit == 5000000);

// In console mode the run callback's result is the host's; under the manager it goes into the last report.
TEST_F(ServiceTest, RunsInConsoleForItsWordAtAnyPlaceButTheOnlyOne) {
    makeHost([](int, char**) { return 42; }, [] {});
    for (const Lines& words : {Lines{"program", "service-console"}, Lines{"program", "x", "service-console"},
                               Lines{"program", "x", "service-install", "service-console"},
                               Lines{"program", "service-console", "service-remove"}, Lines{"service-console", "x"}})
        EXPECT_EQ(run(words), 42) << testing::PrintToString(words);
    EXPECT_EQ(m_journal.entries(), Lines{});
}

TEST_F(ServiceTest, RunsUnderTheManagerForAllOtherWords) {
    makeHost([](int, char**) { return 42; }, [] {});
    for (const Lines& words : {Lines{}, Lines{"program"}, Lines{"service-console"}, Lines{"program", "unknown"},
                               Lines{"program", "Service-Console"}, Lines{"program", "service-console "},
                               Lines{"program", "x", "service-install"}, Lines{"program", "SERVICE-INSTALL"},
                               Lines{"service-remove", "x"}}) {
        m_journal.clear();
        EXPECT_EQ(run(words), 0) << testing::PrintToString(words);
        EXPECT_EQ(m_journal.entries().back(), "report 16 1 5 0 42 0 0") << testing::PrintToString(words);
    }
}

TEST_F(ServiceTest, LogsThatItIsInstalledAndRemoved) {
    makeHost({}, {});
    ServiceManagerCalls calls = ServiceManagerCalls::platform();
    calls.install = [](const std::string& name, const std::string& displayName, const std::string& executablePath) {
        return name == kName && displayName == "Test Service" && executablePath == test::thisProgram();
    };
    calls.remove = [](const std::string& name) { return name == kName; };
    m_host->setServiceManager(std::move(calls));
    EXPECT_EQ(run({"program", "service-install"}), 0);
    EXPECT_EQ(run({"program", "service-remove"}), 0);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::run - installed service 'quorkeri_test_service' running '" +
                         test::thisProgram() + "'",
                     "INFO UTL::Service::run - removed service 'quorkeri_test_service'"}));
}

// Nothing but a service control manager starts a service; a test is not one.
TEST_F(ServiceTest, ServiceModeFailsWhereNoManagerStartedTheProcess) {
    makeHost(journalled("run"), [] {});
    m_host->setServiceManager(ServiceManagerCalls::platform());
    EXPECT_EQ(run({"program"}), 1);
    EXPECT_EQ(m_journal.entries(), Lines{"CRIT UTL::Service::runService - failed to start service control dispather "
                                         "for 'quorkeri_test_service': " +
                                         NS_CORE::systemErrorText(kNotStartedByAManager)});
}

TEST_F(ServiceTest, PassesTheCommandLinesOrTheManagersArgumentsToTheWork) {
    Lines seen;
    makeHost(
        [&seen](int argc, char** argv) {
            seen.assign(argv, argv + argc);
            return 0;
        },
        [] {});
    EXPECT_EQ(run({"program", "service-console", "more"}), 0);
    EXPECT_EQ(seen, (Lines{"program", "service-console", "more"}));
    std::string name = kName;
    std::string extra = "extra";
    char* argv[] = {name.data(), extra.data(), nullptr};
    Service::serviceMain(2, argv);
    EXPECT_EQ(seen, (Lines{kName, "extra"}));
}

TEST_F(ServiceTest, ConsoleModeSaysSoWhereNormIsOn) {
    ASSERT_TRUE(NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 8));
    makeHost([](int, char**) { return 0; }, [] {});
    EXPECT_EQ(run({"program", "service-console"}), 0);
    EXPECT_TRUE(NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 0));
    EXPECT_EQ(m_journal.entries(), Lines{"NORM UTL::Service::runService - running 'quorkeri_test_service' in console"});
}

TEST_F(ServiceTest, ThrowsForAnEmptyRunCallbackInEitherModeButNotForAnEmptyStopCallback) {
    makeHost({}, {});
    EXPECT_NO_THROW(Service::signalHandler(15));
    EXPECT_THROW(run({"program", "service-console"}), std::bad_function_call);
    EXPECT_THROW(Service::serviceMain(0, nullptr), std::bad_function_call);
    EXPECT_EQ(m_host->status().currentState, ServiceState::Running);
}

TEST_F(ServiceTest, SignalHandlerLogsTheNumberAndCallsTheStopCallback) {
    makeHost({}, [this] { m_journal.add("stop"); });
    Service::signalHandler(15);
    EXPECT_EQ(m_journal.entries(), (Lines{"INFO UTL::Service::signalHandler - 15", "stop"}));
}

TEST_F(ServiceTest, WhatThePlatformCallsFailsACheckWithoutAHostAndDoesNothing) {
    makeHost({}, [this] { m_journal.add("stop"); });
    Service::clearInstance();
    Service::signalHandler(15);
    Service::serviceMain(0, nullptr);
    Service::controlHandler(ServiceControl::Stop);
    EXPECT_EQ(m_hook.failures(), (std::vector<test::FailedCheck>{{"CHECKF", "utl_service", 119, 0, ""},
                                                                 {"CHECKF", "utl_service_win32", 192, 0, ""},
                                                                 {"CHECKF", "utl_service_win32", 141, 0, ""}}));
    EXPECT_EQ(m_journal.entries(), Lines{});
}

TEST_F(ServiceTest, HostThatEndsIsNoInstanceAnyMore) {
    makeHost({}, {});
    m_host.reset();
    Service::signalHandler(2);
    EXPECT_EQ(m_hook.single().line, 119);
}

TEST_F(ServiceTest, CountsAsRunningBeforeTheWorkBeginsAndReportsItsResultAsTheServicesOwnExitCode) {
    makeHost(journalled("run", -7), [] {});
    Service::serviceMain(0, nullptr);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::serviceMain - RegisterServiceCtrlHandler", kStartPending, kRunning,
                     "INFO UTL::Service::serviceMain - ==== Start 'quorkeri_test_service'", "run",
                     "INFO UTL::Service::serviceMain - ==== Completed 'quorkeri_test_service'",
                     "report 16 1 5 0 4294967289 0 0"}));
}

TEST_F(ServiceTest, ReportsNothingWhenTheControlHandlerCannotBeRegistered) {
    makeHost(journalled("run"), [] {});
    // The platform's own, which refuses because no dispatcher has been started.
    ServiceManagerCalls calls = ServiceManagerCalls::platform();
    calls.setStatus = [this](void*, const ServiceStatus& status) { m_journal.add(reportText(status)); };
    m_host->setServiceManager(std::move(calls));
    Service::serviceMain(0, nullptr);
    const Lines entries = m_journal.entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0], "INFO UTL::Service::serviceMain - RegisterServiceCtrlHandler");
    const std::string expected =
        "CRIT UTL::Service::serviceMain - failed to register control handler for 'quorkeri_test_service': ";
    EXPECT_TRUE(entries[1].starts_with(expected)) << entries[1];
    EXPECT_GT(entries[1].size(), expected.size());
}

// A service at work on a thread of its own, as the manager would have it.
class RunningServiceTest : public ServiceTest {
protected:
    void SetUp() override {
        makeHost(
            [this](int, char**) {
                m_begun.release();
                m_goOn.acquire();
                return 0;
            },
            [this] {
                m_journal.add("stop");
                if (m_stopEndsWork) m_goOn.release();
            });
        m_thread = std::thread([] { Service::serviceMain(0, nullptr); });
        m_begun.acquire();
        m_journal.clear();
    }
    ~RunningServiceTest() override {
        if (m_thread.joinable()) finish();
    }
    void finish() {
        m_goOn.release();
        m_thread.join();
    }

    std::atomic<bool> m_stopEndsWork{false};
    test::Semaphore m_begun;
    test::Semaphore m_goOn;
    std::thread m_thread;
};

TEST_F(RunningServiceTest, EachStopCallsTheCallbackBeforeItReportsStopPending) {
    for (int i = 0; i < 2; ++i) {
        m_journal.clear();
        Service::controlHandler(1);
        EXPECT_EQ(m_journal.entries(),
                  (Lines{"INFO UTL::Service::controlHandler - SERVICE_CONTROL_STOP", "stop", kStopPending}));
    }
    m_journal.clear();
    finish();
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::serviceMain - ==== Completed 'quorkeri_test_service'", kStopped}));
}

TEST_F(RunningServiceTest, ShutdownIsAStopUnderItsOwnName) {
    Service::controlHandler(5);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::controlHandler - SERVICE_CONTROL_SHUTDOWN", "stop", kStopPending}));
}

TEST_F(RunningServiceTest, InterrogateReportsTheStateUnchanged) {
    Service::controlHandler(4);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::controlHandler - SERVICE_CONTROL_INTERROGATE", kRunning}));
    Service::controlHandler(1);
    Service::controlHandler(4);
    EXPECT_EQ(m_journal.entries().back(), kStopPending);
}

TEST_F(RunningServiceTest, OtherControlsFailACheckAndReportTheStateUnchanged) {
    struct Row {
        uint32_t control;
        int32_t line;
        std::string message;
        Lines journal = {kRunning};
    };
    for (const Row& row : {Row{2, 166, "", {"INFO UTL::Service::controlHandler - SERVICE_CONTROL_PAUSE", kRunning}},
                           Row{3, 172, "", {"INFO UTL::Service::controlHandler - SERVICE_CONTROL_CONTINUE", kRunning}},
                           Row{0, 180, "0"}, Row{6, 180, "6"}, Row{128, 180, "128"}, Row{255, 180, "255"},
                           Row{256, 180, "256"}, Row{4294967295U, 180, "4294967295"}}) {
        m_hook.clear();
        m_journal.clear();
        Service::controlHandler(row.control);
        EXPECT_EQ(m_hook.single(), (test::FailedCheck{"CHECKF", "utl_service_win32", row.line, 0, row.message}));
        EXPECT_EQ(m_journal.entries(), row.journal);
    }
}

TEST_F(RunningServiceTest, ControlsAfterTheEndReportNothing) {
    finish();
    m_journal.clear();
    Service::controlHandler(1);
    Service::controlHandler(4);
    Service::controlHandler(2);
    EXPECT_EQ(m_journal.entries(), (Lines{"INFO UTL::Service::controlHandler - SERVICE_CONTROL_STOP", "stop",
                                          "INFO UTL::Service::controlHandler - SERVICE_CONTROL_INTERROGATE",
                                          "INFO UTL::Service::controlHandler - SERVICE_CONTROL_PAUSE"}));
    EXPECT_EQ(m_hook.single(), (test::FailedCheck{"CHECKF", "utl_service_win32", 166, 0, ""}));
    EXPECT_EQ(m_host->status().currentState, ServiceState::Stopped);
}

TEST_F(RunningServiceTest, InstanceIsClearedOrDestroyedOnlyWhenServiceMainIsDone) {
    const std::function<void()> ends[] = {&Service::clearInstance, [this] { m_host = nullptr; }};
    for (const std::function<void()>& end : ends) {
        if (!m_thread.joinable()) SetUp();
        std::atomic<bool> isDone{false};
        std::thread finisher([this, &isDone] {
            EXPECT_FALSE(isDone);
            m_goOn.release();
        });
        end();
        isDone = true;
        EXPECT_EQ(m_journal.entries().back(), kStopped);
        finisher.join();
        m_thread.join();
    }
}

// Callbacks that come while the process's service is made, cleared and destroyed find a whole one or none.
TEST_F(ServiceTest, CallbacksMayComeWhileInstancesComeAndGo) {
    std::atomic<bool> isOver{false};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 3; ++caller)
        callers.emplace_back([&isOver] {
            while (!isOver) Service::controlHandler(ServiceControl::Interrogate);
        });
    for (int round = 0; round < 50; ++round) {
        m_host = nullptr;
        makeHost({}, {});
        NS_CORE::MasterLogger::setImplementation(nullptr);
        if (round % 2 == 0) Service::clearInstance();
    }
    isOver = true;
    for (std::thread& caller : callers) caller.join();
    for (const test::FailedCheck& check : m_hook.failures()) EXPECT_EQ(check.line, 141);
}

// Looks at the socket library when the exit handlers have run, and tells it by the exit code.
struct AfterExit {
    bool m_isArmed = false;
    ~AfterExit() {
        if (m_isArmed) std::_Exit(NS_CORE::winsockInitialised() ? 42 : 41);
    }
};
[[gnu::init_priority(101)]] AfterExit g_afterExit;

const test::ChildProgram g_exitChild("service_exit", [](const std::vector<std::string>& arguments) {
    g_afterExit.m_isArmed = true;
    if (arguments.at(0) == "service") {
        Service host("", "name", "display", ".", "unused.log", [](int, char**) { return 0; }, [] {});
        NS_CORE::MasterLogger::setImplementation(nullptr);
        ServiceManagerCalls calls = ServiceManagerCalls::platform();
        calls.registerControlHandler = [](const char*) -> void* { return &g_afterExit; };
        calls.setStatus = [](void*, const ServiceStatus&) {};
        host.setServiceManager(std::move(calls));
        Service::serviceMain(0, nullptr);
    }
    return 0;
});

TEST(ServiceExitTest, LeavesTheSocketLibraryAloneInServiceModeOnly) {
    EXPECT_EQ(test::SelfProcess("service_exit", {"service"}).wait(), 42);
    EXPECT_EQ(test::SelfProcess("service_exit", {"console"}).wait(), 41);
}

} // namespace
} // namespace NS_UTL
