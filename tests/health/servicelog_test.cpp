#include "health/servicelog.h"

#include <gtest/gtest.h>

#include <ctime>

namespace health {
namespace {

constexpr std::string_view kNowText = "2026-01-02 03:04:05";

LocalSeconds seconds(std::string_view text) {
    LocalSeconds out = -1;
    EXPECT_TRUE(parseTime(text, &out)) << text;
    return out;
}

// Lines of one second: "HH:MM:SS what".
std::string lines(std::initializer_list<std::string_view> list) {
    std::string out;
    for (const std::string_view line : list) {
        const std::string_view what = line.substr(9);
        out += "2026-01-02 02 " + std::string(line.substr(0, 9));
        if (what == "run") out += "Run - Running\n";
        if (what == "failed") out += "Run - Run: 'quorkeri_wrapper.exe' failed\n";
        if (what == "stop") out += "Stop - Stop\n";
        if (what == "end") out += "UTL::Service::serviceMain - ==== Completed 'quorkeri_service.exe'\n";
        if (what == "refused") out += "NS_UTL::ProcessUtils::start - failed to start 'quorkeri_wrapper.exe': No.\r\n\n";
        if (what == "damaged") out += "NS_UTL::ProcessUtils::start - failed to start 'quorkeri_wrapper.exe': \n";
    }
    return out;
}

LogSummary read(std::initializer_list<std::string_view> list) {
    return readServiceLog("", lines(list), seconds(kNowText));
}

TEST(ServiceLog, CountsTheLastHourInBothFiles) {
    const std::string old = lines({"02:04:05 failed", "02:04:06 failed"});
    const std::string current = "cut off\n" + lines({"03:04:05 failed", "03:04:06 failed"}) + "2026-01-02 02 03:04:07";
    const LogSummary log = readServiceLog(old, current, seconds(kNowText));
    EXPECT_EQ(log.restartsLastHour, 2U);
    EXPECT_EQ(log.lastLine, seconds("2026-01-02 03:04:06"));
    EXPECT_EQ(readServiceLog("", "", 0).lastLine, 0);
}

TEST(ServiceLog, KnowsTheStopOfTheLastLifeAndTheRestartsAroundIt) {
    const LogSummary log = read({"01:00:00 run", "01:00:01 stop", "01:00:02 failed", "02:00:00 run", "02:00:01 failed",
                                 "02:00:02 stop", "02:00:03 failed", "02:00:04 stop", "02:00:05 failed"});
    EXPECT_EQ(log.stop, seconds("2026-01-02 02:00:02"));
    EXPECT_EQ(log.restartsBeforeStop, 1U);
    EXPECT_EQ(log.restartsAfterStop, 2U);
    EXPECT_FALSE(read({"01:00:00 run", "01:00:01 stop", "01:00:02 end"}).stop);
    EXPECT_FALSE(read({"01:00:00 run", "01:00:01 stop", "02:00:00 run"}).stop);
}

TEST(ServiceLog, HasTheReasonOfTheLastStartOnly) {
    EXPECT_EQ(read({"01:00:00 run", "01:00:01 refused", "01:00:01 failed"}).startFailure, "No.");
    EXPECT_EQ(read({"01:00:00 run", "01:00:01 damaged", "01:00:01 failed"}).startFailure, "");
    EXPECT_FALSE(read({"01:00:01 refused", "01:00:01 failed", "01:00:06 failed"}).startFailure);
    EXPECT_FALSE(read({"01:00:01 refused", "01:00:01 failed", "01:00:06 run"}).startFailure);
}

TEST(LocalTime, IsTheClockOnTheWall) {
    EXPECT_EQ(seconds("1970-01-01 00:00:00"), 0);
    EXPECT_EQ(seconds("2000-02-29 12:00:00"), 951'825'600);
    EXPECT_EQ(seconds(kNowText), 1'767'323'045);
    EXPECT_EQ(timeText(1'767'323'045), kNowText);
    for (const char* text : {"", "2026-01-02", "2026-01-02 03:04:0x", "2026-01-02T03:04:05", "-026-01-02 03:04:05"}) {
        LocalSeconds out = 7;
        EXPECT_FALSE(parseTime(text, &out)) << text;
        EXPECT_EQ(out, 7) << text;
    }
    constexpr int64_t kMoment = 1'767'323'045;
    std::time_t moment = kMoment;
    char text[30] = {};
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&moment));
    EXPECT_EQ(timeText(toLocal(kMoment)), text);
    EXPECT_EQ(toLocal(-1), 0);
}

} // namespace
} // namespace health
