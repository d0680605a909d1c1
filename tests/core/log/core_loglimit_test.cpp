#include "core/log/core_loglimit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "tests/support/calling_log.h"
#include "tests/support/log_recorder.h"

using test::LogRecorder;

namespace NS_CORE {
namespace {

struct LimitTest : testing::Test {
    LimitTest() {
        MasterLogger::setRateImplementation(std::make_unique<DefaultLogRImpl>([this] { return nowMs; }));
    }
    ~LimitTest() override { MasterLogger::setRateImplementation(nullptr); }

    static void say(const char* message, uint32_t level = LogLevel::Warn, LogRate rate = LogRate::Hourly) {
        MasterLogger::logLimited(rate, level, "A::b", "%s", message);
    }
    std::vector<std::string> taken() {
        std::vector<std::string> lines = log.lines();
        log.clear();
        return lines;
    }
    using Lines = std::vector<std::string>;

    uint64_t nowMs = 5000;
    LogRecorder log;
};

TEST_F(LimitTest, LogsTheFirstAtOnceAndCountsTheOthers) {
    say("x");
    EXPECT_EQ(taken(), Lines{"WARN A::b - x"});
    for (int i = 0; i < 4; ++i) {
        nowMs += 1000;
        say("x");
    }
    EXPECT_EQ(taken(), Lines{});
    nowMs = 5000 + 3600 * 1000 - 1;
    say("x");
    EXPECT_EQ(taken(), Lines{});
    nowMs = 5000 + 3600 * 1000;
    say("x");
    EXPECT_EQ(taken(), Lines{"WARN A::b - x [6 times in 3600 seconds]"});
    say("x");
    EXPECT_EQ(taken(), Lines{});
    nowMs += 7300 * 1000 + 999;
    say("x");
    EXPECT_EQ(taken(), Lines{"WARN A::b - x [2 times in 7300 seconds]"});
    nowMs += 3600 * 1000;
    say("x");
    EXPECT_EQ(taken(), Lines{"WARN A::b - x"}) << "nothing was held back";
}

TEST_F(LimitTest, TellsLevelsAndTextsApart) {
    say("x");
    say("y");
    say("x", LogLevel::Info);
    EXPECT_EQ(taken(), (Lines{"WARN A::b - x", "WARN A::b - y", "INFO A::b - x"}));
    say("y");
    say("x", LogLevel::Info);
    EXPECT_EQ(taken(), Lines{});
}

TEST_F(LimitTest, TakesItsPeriodFromTheRate) {
    for (const auto& [rate, seconds] :
         {std::pair(LogRate{2}, 2U), {LogRate::Minutely, 60U}, {LogRate::Daily, 86'400U}}) {
        say("x", LogLevel::Warn, rate);
        nowMs += seconds * 1000 - 1;
        say("x", LogLevel::Warn, rate);
        nowMs += 1;
        say("x", LogLevel::Warn, rate);
        const std::string times = "[2 times in " + std::to_string(seconds) + " seconds]";
        EXPECT_EQ(taken(), (Lines{"WARN A::b - x", "WARN A::b - x " + times}));
        nowMs += seconds * 1000;
    }
}

TEST_F(LimitTest, DoesNotLimitWithoutARateOrAtLevelZero) {
    const LogCapture capture;
    for (int i = 0; i < 2; ++i) {
        say("x", LogLevel::Warn, LogRate::None);
        say("x", LogLevel::Log2String);
        say("x", LogLevel::Norm);
    }
    EXPECT_EQ(taken(), (Lines{"WARN A::b - x", "WARN A::b - x"}));
    EXPECT_EQ(capture.text(), "A::b - x\nA::b - x");
}

TEST_F(LimitTest, ReportsTextsThatDoNotComeAgainWithALaterCall) {
    say("x");
    say("x");
    say("x");
    say("silent");
    nowMs += 3600 * 1000;
    taken();
    say("y");
    EXPECT_EQ(taken(), (Lines{"WARN A::b - x [2 times in 3600 seconds]", "WARN A::b - y"}));
    say("x");
    EXPECT_EQ(taken(), Lines{"WARN A::b - x"}) << "a new period";
    say("y");
    nowMs += 3600 * 1000;
    say("x");
    EXPECT_EQ(taken(), (Lines{"WARN A::b - x", "WARN A::b - y [1 times in 3600 seconds]"}))
        << "a known text's call, too";
}

TEST_F(LimitTest, ReportsWhatItHoldsBackWhenItEnds) {
    say("x");
    say("x");
    taken();
    nowMs += 10 * 1000;
    MasterLogger::setRateImplementation(nullptr);
    EXPECT_EQ(taken(), Lines{"WARN A::b - x [1 times in 10 seconds]"});
    say("x");
    say("x");
    EXPECT_EQ(taken(), Lines{"WARN A::b - x"}) << "the default limits";
}

TEST_F(LimitTest, MakesRoomByReportingTheOldestText) {
    for (int i = 0; i < 2; ++i) say("oldest", LogLevel::Warn, LogRate::Daily);
    const auto fillUpFrom = [](size_t number) {
        for (; number < DefaultLogRImpl::kMaxTexts; ++number) say(std::to_string(number).c_str());
    };
    nowMs += 1000;
    fillUpFrom(1);
    EXPECT_EQ(taken().size(), 256U);
    nowMs += 3600 * 1000;
    say("new");
    fillUpFrom(2);
    EXPECT_EQ(taken().size(), DefaultLogRImpl::kMaxTexts - 1) << "those whose period has ended make room first";
    say("one more");
    EXPECT_EQ(taken(), (Lines{"WARN A::b - oldest [1 times in 3601 seconds]", "WARN A::b - one more"}));
    say("2");
    EXPECT_EQ(taken(), Lines{}) << "the younger ones are still known";
}

TEST_F(LimitTest, BoundsTheBytesItKeeps) {
    const std::string half(128 * 1024 - std::string("A::b - 1").size(), 'x');
    for (const char* end : {"1", "1", "2"}) say((half + end).c_str());
    EXPECT_EQ(taken().size(), 2U) << "both fit to the byte";
    say("x");
    EXPECT_EQ(taken().size(), 2U) << "the report of the first, and the new one";
    for (const char* end : {"2", "1"}) say((half + end).c_str());
    EXPECT_EQ(taken().size(), 1U) << "the first alone is forgotten";
}

TEST_F(LimitTest, CanBeReplaced) {
    struct Upper : LogRImpl {
        void log(LogRate rate, uint32_t level, std::string_view text, const Output& output) override {
            output(level, std::string(text) + "!" + std::to_string(static_cast<uint32_t>(rate)));
            // What it logs by itself is not limited, or it would wait for itself.
            for (int i = 0; i < 2; ++i) say("own");
        }
    };
    const Lines expected{"WARN A::b - x!3600", "WARN A::b - own", "WARN A::b - own"};
    MasterLogger::setRateImplementation(std::make_unique<Upper>());
    say("x");
    EXPECT_EQ(taken(), expected);
    MasterLogger::setRateImplementation(std::make_unique<DefaultLogRImpl>([this] { return nowMs; }));
    for (int i = 0; i < 2; ++i) say("early");
    EXPECT_EQ(taken(), Lines{"WARN A::b - early"});
    Lines seen;
    struct OwnGlobals : Globals {
        explicit OwnGlobals(Lines& seen)
            : Globals(std::make_unique<test::Calling<LogImpl>>([&](const auto& record) { seen.push_back(record); }),
                      std::make_unique<Upper>()) {}
    };
    const OwnGlobals globals(seen);
    EXPECT_EQ(seen, Lines{"WARN A::b - early [1 times in 0 seconds]"}) << "what was held back before";
    seen.clear();
    say("x");
    EXPECT_EQ(seen, expected);
}

} // namespace
} // namespace NS_CORE
