#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/supervised_service.h"

// Console mode and the words that this platform cannot serve.
namespace test {
namespace {

using std::chrono::seconds;

void sendSignal(const Process& process, int signum) {
    ASSERT_EQ(::kill(static_cast<pid_t>(process.id()), signum), 0);
}

TEST(Console, EndsOnInterruptAndOnTerminate) {
    for (const int signum : {SIGINT, SIGTERM}) {
        const Installation installation;
        Process process(installation.program(), {"service-console"}, installation.output());
        installation.awaitRecord("ready");
        sendSignal(process, signum);
        EXPECT_EQ(process.awaitExit(seconds(5)), 0);
        EXPECT_EQ(installation.records("datagram").size(), 1U);
        EXPECT_EQ(installation.log(),
                  (std::vector<std::string>{line::running, line::copying,
                                            "UTL::Service::signalHandler - " + std::to_string(signum), line::stop}));
    }
}

TEST(Console, TakesTwoStopRequestsInARow) {
    const Installation installation;
    installation.setCompanion("ignore 1");
    Process process(installation.program(), {"service-console"}, installation.output());
    installation.awaitRecord("ready");
    sendSignal(process, SIGTERM);
    installation.awaitRecord("datagram");
    EXPECT_FALSE(process.awaitExit(std::chrono::milliseconds(0)));
    sendSignal(process, SIGINT);
    EXPECT_EQ(process.awaitExit(seconds(5)), 0);
    const std::vector<Record> datagrams = installation.records("datagram");
    ASSERT_EQ(datagrams.size(), 2U);
    for (const Record& datagram : datagrams) EXPECT_TRUE(datagram.text.starts_with("10 ")) << datagram.text;
    EXPECT_EQ(installation.log(),
              (std::vector<std::string>{line::running, line::copying, "UTL::Service::signalHandler - 15", line::stop,
                                        "UTL::Service::signalHandler - 2", line::stop}));
}

TEST(Console, LeavesTheCompanionOutOfItsTerminalsSession) {
    const Installation installation;
    Process process(installation.program(), {"service-console"}, installation.output());
    const Record ready = installation.awaitRecord("ready");
    const auto companion = static_cast<pid_t>(ready.processId);
    // An interrupt typed at a terminal reaches the service alone.
    EXPECT_NE(getpgid(companion), getpgid(static_cast<pid_t>(process.id())));
    for (const Record& handle : installation.records("handle")) {
        const int fd = std::stoi(handle.text);
        EXPECT_LE(fd, STDERR_FILENO) << handle.text;
        EXPECT_EQ(handle.text, std::to_string(fd) + " /dev/null");
    }
    sendSignal(process, SIGTERM);
    EXPECT_EQ(process.awaitExit(seconds(5)), 0);
}

TEST(Console, CopiesSixLargeLibrariesByteForByte) {
    const Installation installation;
    constexpr size_t kLargeLibrary = 20U << 20U;
    installation.putLibraries(kLargeLibrary);
    Process process(installation.program(), {"service-console"}, installation.output());
    installation.awaitRecord("ready", 1, seconds(20));
    EXPECT_TRUE(installation.areLibrariesCopied());
    sendSignal(process, SIGTERM);
    EXPECT_EQ(process.awaitExit(seconds(5)), 0);
}

TEST(CommandLine, WhatNeedsAServiceManagerFailsAndSaysSo) {
    const Installation installation;
    const auto run = [&](const std::vector<std::string>& words) {
        Process process(installation.program(), words, installation.output());
        return process.awaitExit(seconds(15));
    };
    EXPECT_EQ(run({"service-install"}), 1);
    EXPECT_EQ(run({"service-remove"}), 1);
    EXPECT_EQ(run({}), 1);
    EXPECT_EQ(run({"unknown"}), 1);
    EXPECT_EQ(run({"SERVICE-CONSOLE"}), 1);
    const std::vector<std::string> log = installation.log();
    ASSERT_EQ(log.size(), 7U);
    EXPECT_TRUE(log[0].starts_with("UTL::Service::install - failed to open service manager: ")) << log[0];
    EXPECT_EQ(log[1], "UTL::Service::run - failed to install service 'quorkeri_service.exe' running '" +
                          pathText(installation.program()) + "'");
    EXPECT_TRUE(log[2].starts_with("UTL::Service::remove - failed to open service manager: ")) << log[2];
    EXPECT_EQ(log[3], "UTL::Service::run - failed to remove service 'quorkeri_service.exe'");
    const std::string dispatcher =
        "UTL::Service::runService - failed to start service control dispather for 'quorkeri_service.exe': ";
    for (size_t i = 4; i < log.size(); ++i) EXPECT_TRUE(log[i].starts_with(dispatcher)) << log[i];
    EXPECT_TRUE(installation.records("started").empty());
}

} // namespace
} // namespace test
