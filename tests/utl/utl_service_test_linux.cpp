#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/semaphore.h"
#include "tests/utl/utl_service_fixture.h"
#include "utl/utl_service.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;

TEST_F(ServiceTest, NeitherInstallsNorRemovesWithoutAManager) {
    makeHost({}, {});
    EXPECT_EQ(run({"program", "service-install", "service-console"}), 1);
    errno = 0;
    EXPECT_EQ(run({"program", "service-remove"}), 1);
    errno = 0;
    EXPECT_FALSE(ServiceManagerCalls::platform().registerControlHandler("x"));
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"WARN UTL::Service::install - failed to open service manager: Function not implemented",
                     "WARN UTL::Service::run - failed to install service 'quorkeri_test_service' running '" +
                         test::thisProgram() + "'",
                     "WARN UTL::Service::remove - failed to open service manager: Function not implemented",
                     "WARN UTL::Service::run - failed to remove service 'quorkeri_test_service'"}));
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
    std::thread::id stopThread;
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
            return 5;
        },
        [&] {
            ++stops;
            stopThread = std::this_thread::get_id();
            stopped.release();
        });
    EXPECT_EQ(run({"program", "service-console"}), 5);
    EXPECT_EQ(stops, kSignals);
    EXPECT_NE(stopThread, std::this_thread::get_id());
    const Lines entries = m_journal.entries();
    for (const char* const signum : {"2", "15"})
        EXPECT_EQ(std::ranges::count(entries, std::string("INFO UTL::Service::signalHandler - ") + signum),
                  kSignals / 2);
}

// Exit codes of a child that says which check failed: the line, or 0 for none and 255 for more than one.
int failedLine(const test::HookRecorder& hook) {
    const std::vector<test::FailedCheck> failures = hook.failures();
    if (failures.empty()) return 0;
    const test::FailedCheck& last = failures.back();
    return last.file == "utl_service" && last.message.empty() ? last.line : 255;
}

// The exit code of such a child in a new directory.
int runChildFrom(const fs::path& directory, const std::string& name, const std::vector<std::string>& arguments = {}) {
    fs::create_directories(directory);
    fs::copy_file(test::thisProgram(), directory / "program");
    return test::runAndWait(test::childCommandLineOf((directory / "program").string(), name, arguments));
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
    EXPECT_EQ(runChildFrom(directory, "service_homeless", {directory.string()}), 34);
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
    EXPECT_EQ(runChildFrom(directory, "service_deep"), 70);
}

} // namespace
} // namespace NS_UTL
