#include "core/report/internal/core_testsettings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/log_recorder.h"

using NS_CORE::TestSettings;
using NS_CORE::TestSettingsParser;
using Strings = std::vector<std::string>;

namespace {

constexpr uint32_t kAllBits = 0x3f;

// Most tests expect no record; the others say which they expect.
struct TestSettingsTest : testing::Test {
    void TearDown() override { EXPECT_EQ(log.lines(), expected); }

    test::LogRecorder log;
    Strings expected;

    static TestSettings parse(const Strings& lines, uint32_t flags = 0) {
        TestSettings settings;
        settings.actionFlags = flags;
        TestSettingsParser parser(&settings);
        for (const std::string& line : lines) parser.addLine(line);
        return settings;
    }
    static uint32_t flagsAfter(const Strings& lines, uint32_t flags) { return parse(lines, flags).actionFlags; }
};

TEST_F(TestSettingsTest, HasDefaults) {
    EXPECT_EQ(TestSettings(), (TestSettings{1, "192.168.0.250", 25000, "", 0}));
    EXPECT_EQ(parse({}), TestSettings());
}

TEST_F(TestSettingsTest, TakesTheGeneralKeys) {
    EXPECT_EQ(parse({"[general]", "send_address 10.0.0.7 more", "\tsend_port\t 2600\r",
                     "symbol_server_address \\\\server\\symbols", "assert_level 1"}),
              (TestSettings{1, "10.0.0.7", 2600, "\\\\server\\symbols", 0}));
}

TEST_F(TestSettingsTest, TakesPortsFrom1To65534) {
    for (const char* port : {"0", "65535", "-1", "x", "25x", "4294967297"})
        EXPECT_EQ(parse({"[general]", std::string("send_port ") + port}).sendPort, 25000) << port;
    EXPECT_EQ(parse({"[general]", "send_port 1"}).sendPort, 1);
    EXPECT_EQ(parse({"[general]", "send_port 65534"}).sendPort, 65534);
}

TEST_F(TestSettingsTest, LowersAssertLevels1To3To1AndIgnoresOthers) {
    const auto levelAfter = [](const std::string& value) {
        TestSettings settings;
        settings.assertLevel = 0;
        TestSettingsParser parser(&settings);
        parser.addLine("[general]");
        parser.addLine("assert_level " + value);
        return settings.assertLevel;
    };
    for (const char* taken : {"1", "2", "3"}) EXPECT_EQ(levelAfter(taken), 1) << taken;
    for (const char* ignored : {"0", "4", "-1", "x", "default"}) EXPECT_EQ(levelAfter(ignored), 0) << ignored;
}

TEST_F(TestSettingsTest, IgnoresAGeneralKeyWithoutAValue) {
    EXPECT_EQ(parse({"[general]", "send_address", "send_port", "symbol_server_address", "assert_level", "nonsense"}),
              TestSettings());
}

TEST_F(TestSettingsTest, IgnoresCommentsEmptyLinesAndWhatStandsBeforeTheFirstSection) {
    EXPECT_EQ(parse({"send_port 1", "nonsense 2", "[]", "", "  ", "# [x]", "#send_port 2", "[general]", "#send_port 3",
                     " # send_port 4"}),
              TestSettings());
}

TEST_F(TestSettingsTest, LeavesASettingAloneForDefault) {
    EXPECT_EQ(parse({"[general]", "send_address default", "send_port default", "symbol_server_address default"}),
              TestSettings());
    EXPECT_EQ(flagsAfter({"[assert]", "abort default", "send default", "[alert]", "backtrace default"}, kAllBits),
              kAllBits);
}

TEST_F(TestSettingsTest, NeverSetsAnAbortBit) {
    for (const char* section : {"[assert]", "[alert]"}) {
        for (const char* yes : {"1", "t", "true", "enable"}) {
            EXPECT_EQ(flagsAfter({section, std::string("abort ") + yes}, 0), 0U);
            EXPECT_EQ(flagsAfter({section, std::string("abort ") + yes}, kAllBits), 0x36U) << "both are cleared";
        }
    }
    for (const char* no : {"0", "f", "false", "disable"}) {
        EXPECT_EQ(flagsAfter({"[assert]", std::string("abort ") + no}, kAllBits), 0x3eU);
        EXPECT_EQ(flagsAfter({"[alert]", std::string("abort ") + no}, kAllBits), 0x37U);
        EXPECT_EQ(flagsAfter({"[alert]", std::string("abort ") + no}, 0), 0U);
    }
}

TEST_F(TestSettingsTest, SetsAndClearsTheBitsOfSendAndBacktrace) {
    struct Row {
        const char* section;
        const char* key;
        uint32_t bit;
    };
    for (const Row& row : {Row{"[assert]", "send ", 0x02}, Row{"[assert]", "backtrace ", 0x04},
                           Row{"[alert]", "send ", 0x10}, Row{"[alert]", "backtrace ", 0x20}}) {
        for (const char* yes : {"1", "t", "true", "enable"}) {
            const std::string line = std::string(row.key) + yes;
            EXPECT_EQ(flagsAfter({row.section, line}, 0), row.bit) << row.section << line;
            EXPECT_EQ(flagsAfter({row.section, line}, kAllBits), 0x36U) << "true clears both abort bits";
        }
        for (const char* no : {"0", "f", "false", "disable"}) {
            const std::string line = std::string(row.key) + no;
            EXPECT_EQ(flagsAfter({row.section, line}, kAllBits), kAllBits & ~row.bit) << row.section << line;
            EXPECT_EQ(flagsAfter({row.section, line}, 0), 0U);
        }
    }
}

TEST_F(TestSettingsTest, LogsBadBooleansOfAssertAtTheirPlaces) {
    EXPECT_EQ(flagsAfter({"[assert]", "abort TRUE", "send yes", "backtrace"}, kAllBits), kAllBits);
    expected = {"WARN Log at core_testinterface:664", "WARN Log at core_testinterface:679",
                "WARN Log at core_testinterface:694"};
}

TEST_F(TestSettingsTest, LogsBadBooleansOfAlertInWords) {
    EXPECT_EQ(flagsAfter({"[alert]", "send yes"}, kAllBits), kAllBits);
    TestSettings settings;
    TestSettingsParser parser(&settings);
    parser.addLine("[alert]");
    // The memory that the list of one token gets next: nothing behind the token may count as its value.
    auto used = std::make_unique<volatile char[]>(24);
    std::fill_n(used.get(), 24, 'x');
    used.reset();
    parser.addLine("backtrace");
    const std::string bad = "WARN NS_CORE::TestInterface::loadIni - bad value '";
    expected = {bad + "yes' of 'send' in section 'alert'", bad + "' of 'backtrace' in section 'alert'"};
}

TEST_F(TestSettingsTest, LogsUnknownKeysAndSections) {
    const TestSettings settings = parse({"[general]", "Send_port 1", "[assert]", "stop 1", "[alert]", "[x 1", "[x]",
                                         "[General]", "send_port 2", "abort 1", "[general]", "send_port 3"});
    EXPECT_EQ(settings.sendPort, 3);
    const std::string function = "WARN NS_CORE::TestInterface::loadIni - ";
    expected = {function + "unhandled val 'Send_port' in section 'general'",
                function + "unhandled val 'stop' in section 'assert'",
                function + "unhandled val '[x' in section 'alert'", function + "unhandled section 'x'",
                function + "unhandled section 'General'"};
}

} // namespace
