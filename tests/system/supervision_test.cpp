#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/supervised_service.h"

// The service and a companion, seen from outside, on both platforms.
namespace test {
namespace {

using std::chrono::seconds;

constexpr int64_t kRestartDelay = 5'000'000;

std::string textOf(const Installation& installation, const std::string& event) {
    return installation.awaitRecord(event).text;
}

std::string withoutTrailingSeparator(std::string path) {
    if (path.ends_with('/') || path.ends_with('\\')) path.pop_back();
    return path;
}

// "10 127.0.0.1:50123": the stop request, from a port of the system's choice.
bool isStopDatagram(const std::string& text) {
    const std::string head = "10 127.0.0.1:";
    return text.starts_with(head) && text.size() > head.size() && text != head + "0";
}

TEST(Supervision, StartsTheCompanionDetachedInTheInstallationWithNothingInherited) {
    const Installation installation;
    SupervisedService service(installation);
    service.start();
    installation.awaitRecord("ready");
    EXPECT_EQ(textOf(installation, "command"), kCompanionName);
    EXPECT_EQ(withoutTrailingSeparator(textOf(installation, "directory")), pathText(installation.root()));
    EXPECT_TRUE(installation.areLibrariesCopied());
    for (const Record& record : installation.records("handle")) {
        // Of the installation it has its own working directory and nothing else; of a console, nothing.
        const std::string& text = record.text;
        const size_t at = text.find(pathText(installation.root()));
        const bool isDirectory = at != std::string::npos && withoutTrailingSeparator(text.substr(at)) ==
                                                                withoutTrailingSeparator(pathText(installation.root()));
        EXPECT_TRUE(at == std::string::npos || isDirectory) << text;
        EXPECT_NE(text, "console");
        EXPECT_FALSE(text.starts_with("stream")) << text;
        EXPECT_EQ(text.find("socket:"), std::string::npos) << text;
        EXPECT_EQ(text.find("pipe:"), std::string::npos) << text;
    }
    service.requestStop();
    service.awaitStopped();
    EXPECT_EQ(installation.log(), SupervisedService::wholeLog());
}

TEST(Supervision, RestartsAnEndedCompanionAfterFiveSecondsAndEndsWithThePauseWhenStoppedInIt) {
    const Installation installation;
    SupervisedService service(installation);
    service.start();
    const Record first = installation.awaitRecord("ready");

    const int64_t firstEnd = nowMicroseconds();
    endProcess(first.processId, installation.root());
    const Record second = installation.awaitRecord("started", 2);
    EXPECT_GE(second.microseconds - firstEnd, kRestartDelay);
    RecordProperty("restart_ms", static_cast<int>((second.microseconds - firstEnd) / 1000));
    installation.awaitRecord("ready", 2);

    const int64_t secondEnd = nowMicroseconds();
    endProcess(second.processId, installation.root());
    installation.awaitLog(line::failed, 2);
    service.requestStop();
    EXPECT_FALSE(service.hasStopped());
    service.awaitStopped();
    EXPECT_GE(nowMicroseconds() - secondEnd, kRestartDelay);
    EXPECT_EQ(installation.records("started").size(), 2U);
    EXPECT_TRUE(installation.records("datagram").empty());
    EXPECT_EQ(installation.log(), SupervisedService::wholeLog({line::failed, line::failed}));
}

TEST(Supervision, WaitsForACompanionThatIgnoresTheStopDatagram) {
    const Installation installation;
    installation.setCompanion("ignore 1");
    SupervisedService service(installation);
    service.start();
    installation.awaitRecord("ready");
    service.requestStop();
    EXPECT_TRUE(isStopDatagram(textOf(installation, "datagram"))) << textOf(installation, "datagram");
    EXPECT_FALSE(service.hasStopped());

    constexpr size_t kOwnLength = 3;
    sendDatagram(kStopPort, kOwnLength);
    service.awaitStopped();
    const std::vector<Record> datagrams = installation.records("datagram");
    ASSERT_EQ(datagrams.size(), 2U) << "the service sends one datagram for one stop request";
    EXPECT_TRUE(datagrams[1].text.starts_with("3 "));
    EXPECT_EQ(installation.log(), SupervisedService::wholeLog());
}

TEST(Supervision, KeepsAStopRequestThatNobodyHearsUntilTheCompanionEnds) {
    const Installation installation;
    installation.setCompanion("mute");
    SupervisedService service(installation);
    service.start();
    const Record companion = installation.awaitRecord("ready");
    service.requestStop();
    EXPECT_FALSE(service.hasStopped());
    endProcess(companion.processId, installation.root());
    service.awaitStopped();
    EXPECT_EQ(installation.log(), SupervisedService::wholeLog());
}

TEST(Supervision, GoesOnWhateverKeepsTheCompanionFromRunning) {
    const Installation installation;
    std::filesystem::remove(installation.companion());
    SupervisedService service(installation);
    service.start();
    installation.awaitLog(line::failed, 1);

    writeFile(installation.companion(), "This is a text, and no program.\n");
    std::filesystem::permissions(installation.companion(), std::filesystem::perms::owner_all);
    installation.awaitLog(line::failed, 2);

    installation.setCompanion("exit 7");
    installation.putCompanion();
    installation.awaitLog(line::failed, 3);
    EXPECT_EQ(installation.records("ending").size(), 1U);
    EXPECT_EQ(installation.awaitRecord("ending").text, "7");

    installation.setCompanion("crash");
    installation.awaitLog(line::failed, 4);
    EXPECT_EQ(installation.records("started").size(), 2U);

    installation.setCompanion("");
    installation.awaitRecord("ready", 1);
    service.requestStop();
    service.awaitStopped();
    // The system's code for "file not found" is 2 on both platforms.
    EXPECT_EQ(installation.log(), SupervisedService::wholeLog({line::startFailed + systemText(2), line::failed,
                                                               line::startFailed + notAProgramText(), line::failed,
                                                               line::failed, line::failed}));
}

TEST(Supervision, StopsTwoHundredTimesWithACompanionThatEndsAtOnce) {
    const Installation installation;
    installation.setCompanion("quick");
    SupervisedService service(installation);
    constexpr size_t kStops = 200;
    for (size_t i = 1; i <= kStops; ++i) {
        service.start();
        installation.awaitRecord("ready");
        service.requestStop();
        service.awaitStopped();
        ASSERT_EQ(installation.log(), SupervisedService::wholeLog()) << "stop number " << i;
        installation.clearTraces();
    }
}

TEST(Supervision, LivesInADirectoryWithBlanksAndInOneWithOtherLetters) {
    for (const std::string name : {"Quorvane Keri Wrapper (x86)", "Ж é 測試"}) {
        const Installation installation(name);
        SupervisedService service(installation);
        service.start();
        installation.awaitRecord("ready");
        EXPECT_EQ(withoutTrailingSeparator(textOf(installation, "directory")), pathText(installation.root()));
        EXPECT_TRUE(installation.areLibrariesCopied());
        service.requestStop();
        service.awaitStopped();
        EXPECT_EQ(installation.records("datagram").size(), 1U);
        EXPECT_EQ(installation.log(), SupervisedService::wholeLog());
    }
}

TEST(CommandLine, OutsideADirectoryNamedBinItSaysSoAndGoesOn) {
    const Installation installation;
    const std::filesystem::path elsewhere = installation.root() / "elsewhere";
    std::filesystem::create_directories(elsewhere);
    const std::filesystem::path program = elsewhere / installation.program().filename();
    std::filesystem::create_hard_link(installation.program(), program);
    Process process(program, {"service-remove"}, installation.output());
    EXPECT_EQ(process.awaitExit(), 1);
    const std::string output = readFile(installation.output());
    EXPECT_NE(output.find("[CRIT] CORE::Assert::failDefault - GASSERT failed at utl_service:41 (CHECKF) (bin)"),
              std::string::npos)
        << output;
}

} // namespace
} // namespace test
