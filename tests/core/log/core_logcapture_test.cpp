#include "core/log/core_logcapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "tests/support/log_recorder.h"

using test::LogRecorder;

namespace NS_CORE {

TEST(LogCapture, CollectsLevelZeroWithNewlinesBetweenEntries) {
    LogRecorder log;
    const LogCapture capture;
    EXPECT_EQ(capture.text(), "");
    MLOG(Log2String, "A::b", "%d", 1);
    EXPECT_EQ(capture.text(), "A::b - 1");
    std::thread([] { MasterLogger::logText(LogLevel::Log2String, "two"); }).join();
    MasterLogger::logText(LogLevel::Log2String, "");
    MLOG(Warn, "A::b", "not for captures");
    EXPECT_EQ(capture.text(), "A::b - 1\ntwo\n");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"WARN A::b - not for captures"});
}

TEST(LogCapture, SeparatesAnEmptyFirstEntry) {
    const LogCapture capture;
    MasterLogger::logText(LogLevel::Log2String, "");
    MasterLogger::logText(LogLevel::Log2String, "two");
    EXPECT_EQ(capture.text(), "\ntwo");
}

TEST(LogCapture, StopsAtItsLimitOfEntries) {
    const LogCapture none(0);
    const LogCapture two(2);
    const LogCapture usual;
    for (int i = 0; i < 1002; ++i) MLOG(Log2String, "n", "-%d", i);
    EXPECT_EQ(none.text(), "");
    EXPECT_EQ(two.text(), "n-0\nn-1");
    const std::string text = usual.text();
    EXPECT_EQ(std::ranges::count(text, '\n'), 999);
    EXPECT_TRUE(text.ends_with("\nn-999"));
}

TEST(LogCapture, CollectsWhileItLivesOnly) {
    MasterLogger::logText(LogLevel::Log2String, "before");
    const LogCapture outer;
    // Two, one after the other, in one place.
    std::optional<LogCapture> inner;
    for (const char* entry : {"first", "second"}) {
        inner.emplace();
        MasterLogger::logText(LogLevel::Log2String, entry);
        EXPECT_EQ(inner->text(), entry);
        inner.reset();
    }
    MasterLogger::logText(LogLevel::Log2String, "outer");
    EXPECT_EQ(outer.text(), "first\nsecond\nouter");
}

} // namespace NS_CORE
