#include "core/report/core_testinterface.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>

#include "core/check/core_assert.h"
#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket.h"
#include "core/text/core_checkf.h"
#include "tests/core/report/testinterface_fixture.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/self_process.h"

using NS_CORE::Assert;

namespace {

TEST_F(TestInterfaceTest, KeepsTheDefaultsWithoutFiles) {
    EXPECT_FALSE(interface.loadIni());
    EXPECT_FALSE(interface.loadExclusions());
    EXPECT_EQ(interface.settings(), NS_CORE::TestSettings());
    EXPECT_FALSE(interface.aborts(FailureKind::Assertion));
    EXPECT_FALSE(interface.isExcluded("core_x", 1));
    EXPECT_EQ(log.lines(), Strings());
}

TEST_F(TestInterfaceTest, PrefersTestingIniToItsAlternative) {
    test::writeFile(dir.path() / "settings" / "testing.alt.ini", "[general]\nsend_port 2\n");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings().sendPort, 2);
    writeIni("[general]\nsend_address 10.0.0.1");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings().sendAddress, "10.0.0.1");
    EXPECT_EQ(interface.settings().sendPort, 25000) << "the alternative counts no more";
}

TEST_F(TestInterfaceTest, PrefersTheExclusionsInSettings) {
    test::writeFile(dir.path() / "assert.exclude", "core_x 1 2035-01-01\n");
    EXPECT_TRUE(interface.loadExclusions());
    EXPECT_TRUE(interface.isExcluded("core_x", 1));
    test::writeFile(dir.path() / "settings" / "assert.exclude", "core_x 2 2035-01-01\n");
    EXPECT_TRUE(interface.loadExclusions());
    EXPECT_FALSE(interface.isExcluded("core_x", 1));
    EXPECT_TRUE(interface.isExcluded("core_x", 2));
}

TEST_F(TestInterfaceTest, TellsOnceForTheFileWhichExclusionsDoNotCount) {
    test::writeFile(dir.path() / "settings" / "assert.exclude", "a 1 x\na 2 y\na 3 2001-01-01\n");
    EXPECT_TRUE(interface.loadExclusions());
    const std::string start = "CORE::TestInterface::loadExclusions - 'settings/assert.exclude': ";
    EXPECT_EQ(log.lines(), (Strings{"WARN " + start + "2 entries ignored, their dates are not YYYY-MM-DD",
                                    "INFO " + start + "1 entries ignored, this build is later than their dates"}));
}

TEST_F(TestInterfaceTest, ReadsOnlyWhatIsMissing) {
    test::writeFile(dir.path() / "settings" / "assert.exclude", "core_x 1 2035-01-01\n");
    interface.readMissingFiles();
    EXPECT_TRUE(interface.isExcluded("core_x", 1));
    writeIni("[general]\nsend_port 7\n");
    test::writeFile(dir.path() / "settings" / "assert.exclude", "");
    interface.readMissingFiles();
    EXPECT_EQ(interface.settings().sendPort, 7);
    EXPECT_TRUE(interface.isExcluded("core_x", 1)) << "was found before";
    writeIni("[general]\nsend_port 8\n");
    interface.readMissingFiles();
    EXPECT_EQ(interface.settings().sendPort, 7);
}

TEST_F(TestInterfaceTest, MakesTheAssertLevelTheProcesss) {
    Assert::setLevel(0);
    writeIni("[general]\nassert_level 3\n");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(Assert::level(), 1);
    EXPECT_EQ(interface.settings().assertLevel, 1);
}

TEST_F(TestInterfaceTest, SurvivesBinarySettings) {
    std::string bytes = "[general]\n";
    for (int i = 0; i < 200'000; ++i) bytes += static_cast<char>(i * 7919 >> 3);
    writeIni(bytes);
    test::writeFile(dir.path() / "settings" / "assert.exclude", bytes);
    interface.readMissingFiles();
    EXPECT_EQ(interface.settings(), NS_CORE::TestSettings());
    EXPECT_LT(log.lines().size(), 110U);
}

TEST_F(TestInterfaceTest, SendsTheDocumentOfAFailure) {
    configure();
    fail(12, "it's \"so\"");
    EXPECT_EQ(collector.receive().bytes, document(12, 1, 1, "it&apos;s &quot;so&quot;"));
    fail(13, "m", FailureKind::Alert);
    EXPECT_EQ(collector.receive().bytes, document(13, 1, 1, "m", "continue", "ALERT"));
    interface.setLogAddress("http://logs/?a&b");
    fail(14);
    EXPECT_EQ(collector.receive().bytes,
              document(14, 1, 1, "m", "continue", "ASSERT", "  <log_url>http://logs/?a&amp;b</log_url>\n"));
    EXPECT_EQ(log.lines(), Strings());
}

TEST_F(TestInterfaceTest, SendsNothingWithoutTheSendBitOfTheKind) {
    configure("[assert]\nsend false\n[alert]\nsend true\n");
    fail(1);
    fail(2, "m", FailureKind::Alert);
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 1, "m", "continue", "ALERT"));
    expectNoMore();
    // What was counted meanwhile is told as soon as it is wanted.
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertSend);
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 2, 2));
    interface.changeActionFlags(TestInterface::FlagChange::Clear, TestAction::AssertSend);
    EXPECT_EQ(interface.settings().actionFlags, TestAction::AlertSend);
}

TEST_F(TestInterfaceTest, CountsFailuresOfOnePlaceInOneRecord) {
    configure();
    fail(5, "first");
    for (int i = 0; i < 9; ++i) fail(5, "later");
    fail(5, "last");
    EXPECT_EQ(interface.recordCount(), 1U);
    EXPECT_EQ(collector.receive().bytes, document(5, 1, 1, "first"));
    expectNoMore();
    nowMs += TestInterface::kReportPeriodMs - 1;
    fail(5, "last");
    expectNoMore();
    nowMs += 1;
    fail(5, "the latest");
    EXPECT_EQ(collector.receive().bytes, document(5, 12, 13, "the latest"));
    interface.sendPending();
    expectNoMore();
    fail(5);
    interface.sendPending();
    EXPECT_EQ(collector.receive().bytes, document(5, 1, 14));
}

TEST_F(TestInterfaceTest, SendsRecordsInTheOrderInWhichTheyAreKept) {
    configure();
    for (const int32_t line : {3, 1, 2}) {
        fail(line);
        EXPECT_EQ(collector.receive().bytes, document(line, 1, 1));
    }
    for (const int32_t line : {2, 1, 3, 1}) fail(line);
    fail(1, "m", FailureKind::Alert);
    EXPECT_EQ(collector.receive().bytes, document(1, 1, 1, "m", "continue", "ALERT")) << "another kind is another";
    nowMs += TestInterface::kReportPeriodMs;
    fail(4);
    EXPECT_EQ(collector.receive().bytes, document(3, 1, 2));
    EXPECT_EQ(collector.receive().bytes, document(1, 2, 3));
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 2));
    EXPECT_EQ(collector.receive().bytes, document(4, 1, 1));
    expectNoMore();
}

TEST_F(TestInterfaceTest, TellsAbortAndReportsThenAtOnce) {
    configure();
    fail(1);
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 1, 1));
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertAbort);
    EXPECT_TRUE(interface.aborts(FailureKind::Assertion));
    EXPECT_FALSE(interface.aborts(FailureKind::Alert));
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 2, 3, "m", "abort"));
    fail(2, "m", FailureKind::Alert);
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 1, "m", "continue", "ALERT"));
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AlertAbort);
    EXPECT_TRUE(interface.aborts(FailureKind::Alert));
}

TEST_F(TestInterfaceTest, AttachesTheStackOfThePlacesFirstFailure) {
    configure("[assert]\nsend true\nbacktrace true\n");
    fail(1);
    const std::string bytes = collector.receive().bytes;
    const std::string start = "  <backtrace>Backtrace START --------------------------------------------\n\n";
    const std::string end = "\n\nBacktrace END ----------------------------------------------</backtrace>  <level>";
    const size_t from = bytes.find(start);
    const size_t to = bytes.find(end);
    ASSERT_NE(from, std::string::npos) << bytes;
    ASSERT_NE(to, std::string::npos) << bytes;
    const std::string trace = bytes.substr(from + start.size(), to - from - start.size());
    // The tracer's own three frames are left out: it begins at who asks the tracer.
    EXPECT_TRUE(trace.starts_with("#01 in NS_CORE::TestInterface::trace() at core_testinterface.cpp:")) << trace;
    const std::string second = trace.substr(trace.find('\n') + 1);
    EXPECT_TRUE(second.starts_with("#02 in NS_CORE::TestInterface::report() at core_testinterface.cpp:")) << trace;
    EXPECT_NE(second.find("fail() at testinterface_fixture.h:"), std::string::npos) << trace;
    nowMs += TestInterface::kReportPeriodMs;
    fail(1);
    EXPECT_NE(collector.receive().bytes.find(trace), std::string::npos);
}

TEST_F(TestInterfaceTest, KeepsABoundedNumberOfPlaces) {
    configure();
    for (int32_t line = 0; line < 1000; ++line) {
        fail(line);
        EXPECT_EQ(collector.receive().bytes, document(line, 1, 1));
    }
    EXPECT_EQ(interface.recordCount(), TestInterface::kMaxRecords);
    // The oldest made room, so its counts begin anew.
    fail(0);
    EXPECT_EQ(collector.receive().bytes, document(0, 1, 1));
    fail(999);
    interface.sendPending();
    EXPECT_EQ(collector.receive().bytes, document(999, 1, 2));
    EXPECT_EQ(log.lines(), Strings());
}

TEST_F(TestInterfaceTest, TellsOnceThatThereIsNoRoomForFurtherPlaces) {
    for (int32_t line = 0; line < 1000; ++line) fail(line);
    EXPECT_EQ(interface.recordCount(), TestInterface::kMaxRecords);
    EXPECT_EQ(log.lines(), Strings{"WARN CORE::TestInterface::sendAsserts - 256 places with failures wait for their "
                                   "report, further ones are not kept"});
}

TEST_F(TestInterfaceTest, TellsOnceThatADocumentIsTooLarge) {
    configure();
    const std::string frame = document(1, 1, 1, "");
    const std::string fits(TestInterface::kMaxDatagram - frame.size(), 'x');
    fail(1, fits);
    EXPECT_EQ(collector.receive().bytes, document(1, 1, 1, fits));
    fail(2, fits + "x");
    const Strings told{
        "WARN CORE::TestInterface::sendAsserts - report of core_x:2 not sent, its 65508 bytes are more "
        "than a datagram holds"};
    EXPECT_EQ(log.lines(), told);
    nowMs += TestInterface::kReportPeriodMs;
    fail(2, fits + "x");
    EXPECT_EQ(log.lines(), told);
    // Others go out, and so does this one once it fits.
    fail(3);
    EXPECT_EQ(collector.receive().bytes, document(3, 1, 1));
    nowMs += TestInterface::kReportPeriodMs;
    fail(2, "short");
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 3, "short"));
}

TEST_F(TestInterfaceTest, TellsOnceThatTheAddressIsNone) {
    writeIni("[general]\nsend_address collector.example\n[assert]\nsend true\n");
    ASSERT_TRUE(interface.loadIni());
    for (int i = 0; i < 100; ++i) {
        fail(i % 7);
        nowMs += TestInterface::kLongestRetryMs;
    }
    interface.sendPending();
    EXPECT_EQ(log.lines(), (Strings{"WARN CORE::SetSockAddr - invalid ip 'collector.example'",
                                    "WARN CORE::TestInterface::sendAsserts - nothing is sent to 'collector.example'"}));
    // With better settings all goes out.
    configure();
    interface.sendPending();
    EXPECT_EQ(collector.receive().bytes, document(0, 15, 15));
}

TEST_F(TestInterfaceTest, TriesACollectorThatCannotBeReachedSeldomAgain) {
    // Sending to the broadcast address takes a right that this socket does not ask for.
    writeIni("[general]\nsend_address 255.255.255.255\n[assert]\nsend true\n");
    ASSERT_TRUE(interface.loadIni());
    fail(1);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.lines()[0].find("failed in sendto"), std::string::npos);
    // 100 days of a failure every ten seconds.
    for (int i = 0; i < 100 * 8640; ++i) {
        nowMs += 10'000;
        fail(1);
    }
    EXPECT_LE(log.lines().size(), 100U * 24 + 10);
    EXPECT_GE(log.lines().size(), 100U * 24 - 10);
    configure();
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 864'002, 864'002));
}

TEST_F(TestInterfaceTest, DoesNotMissACollectorThatIsNotThere) {
    // Nobody listens there; on some systems a later datagram's sender hears of it.
    writeIni("[general]\nsend_address 127.0.0.1\nsend_port 9\n[assert]\nsend true\n");
    ASSERT_TRUE(interface.loadIni());
    const auto start = std::chrono::steady_clock::now();
    for (int32_t line = 0; line < 100; ++line) fail(line);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(log.lines(), Strings());
    configure();
    nowMs += TestInterface::kReportPeriodMs;
    fail(7);
    EXPECT_EQ(collector.receive().bytes, document(7, 1, 2)) << "what nobody took is not sent again";
}

TEST_F(TestInterfaceTest, FallsBackToTheDefaultsWhereTheFileWasCut) {
    writeIni("[general]\nsend_port 25001\nsend_addr");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings().sendPort, 25001) << "what is whole counts";
    EXPECT_EQ(interface.settings().sendAddress, NS_CORE::TestSettings().sendAddress);
    writeIni("[gener");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings(), NS_CORE::TestSettings());
    EXPECT_EQ(log.lines(), Strings()) << "a key without a value, and a line outside of a section, are nothing";
}

TEST_F(TestInterfaceTest, StaysTheSameSizeOverAMillionFailures) {
    configure();
    const size_t records = 100;
    for (int i = 0; i < 1'000'000; ++i) fail(i % static_cast<int>(records));
    EXPECT_EQ(interface.recordCount(), records);
    for (int32_t line = 0; line < 100; ++line) EXPECT_EQ(collector.receive().bytes, document(line, 1, 1));
    expectNoMore();
    for (int32_t line = 0; line < 100; ++line) {
        if (line == 0) interface.sendPending();
        EXPECT_EQ(collector.receive().bytes, document(line, 9'999, 10'000));
    }
    EXPECT_EQ(log.lines(), Strings());
}

uint64_t numberIn(const std::string& document, const std::string& element) {
    const size_t at = document.find("<" + element + ">");
    return at == std::string::npos ? 0 : std::stoull(document.substr(at + element.size() + 2));
}

TEST_F(TestInterfaceTest, CountsEveryFailureOfSeveralThreads) {
    configure("[assert]\nsend true\nbacktrace true\n");
    constexpr int kThreads = 8;
    constexpr int kFailures = 20'000;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([this] {
            for (int i = 0; i < kFailures; ++i) fail(i % 2);
        });
    for (std::thread& thread : threads) thread.join();
    interface.sendPending();
    uint64_t counts[2] = {};
    while (counts[0] + counts[1] < kThreads * kFailures) {
        const std::string bytes = collector.receive().bytes;
        ASSERT_TRUE(bytes.ends_with("</assert>")) << bytes;
        const uint64_t line = numberIn(bytes, "line");
        ASSERT_LT(line, 2U);
        counts[line] += numberIn(bytes, "count");
        EXPECT_EQ(numberIn(bytes, "total"), counts[line]);
    }
    EXPECT_EQ(counts[0], counts[1]);
    expectNoMore();
}

TEST_F(TestInterfaceTest, IsNotLockedWhileItLogs) {
    // An implementation whose check fails while the interface's own message is being written, and on another thread.
    struct Failing : NS_CORE::LogImpl {
        TestInterface* interface = nullptr;
        void log(uint32_t, uint32_t, const NS_CORE::LevelEntry&, uint8_t, const char*, size_t) override {
            const TestInterface::Failure failure{FailureKind::Assertion, "inner", "core_y", 1, 1, ""};
            interface->report(failure);
            std::thread([&] { interface->report(failure); }).join();
        }
    };
    writeIni("[general]\nsend_address none\n[assert]\nsend true\n");
    ASSERT_TRUE(interface.loadIni());
    auto failing = std::make_unique<Failing>();
    failing->interface = &interface;
    NS_CORE::MasterLogger::setImplementation(std::move(failing));
    fail(1);
    NS_CORE::MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(interface.recordCount(), 2U);
}

TEST_F(TestInterfaceTest, RequestsLogs) {
    configure();
    interface.requestSendLogs("a&b", "<12>");
    std::string executable;
    ASSERT_TRUE(NS_CORE::Dir::getModuleFilename(executable));
    EXPECT_EQ(collector.receive().bytes,
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<sendlogs>\n  <file>a&amp;b</file>\n"
              "  <line>&lt;12&gt;</line>\n  <server>" +
                  executable.substr(executable.find_last_of("/\\") + 1) + "</server>\n</sendlogs>");
}

// The process's own, as failing checks meet it.
TEST_F(TestInterfaceTest, IsToldOfFailedChecks) {
    writeIni(general() + "[assert]\nsend true\n");
    test::writeFile(dir.path() / "settings" / "assert.exclude", "core_x 41 2035-01-01\n");
    TestInterface::instance().readMissingFiles();
    EXPECT_FALSE(CHECKF_AT("core_x", 41, false, "excluded"));
    EXPECT_FALSE(CHECKF_AT("core_x", 42, false, "reported"));
    const std::string bytes = collector.receive().bytes;
    EXPECT_NE(bytes.find("<file>core_x</file>\n  <line>42</line>\n  <condition>CHECKF</condition>\n"
                         "  <message>reported</message>"),
              std::string::npos)
        << bytes;
    EXPECT_NE(bytes.find("<level>0</level>"), std::string::npos);
    EXPECT_EQ(log.lines(), (Strings{"CRIT CORE::Assert::failDefault - EXCLUDED_ASSERT failed at core_x:41 (CHECKF) "
                                    "(excluded)",
                                    "CRIT CORE::Assert::failDefault - GASSERT failed at core_x:42 (CHECKF) "
                                    "(reported)"}));
    expectNoMore();
}

// Reports where it is told to, and has a check fail that stops it.
const test::ChildProgram g_stopsByTestInterface("StopsByTestInterface", [](const Strings& arguments) {
    std::filesystem::current_path(test::fromText(arguments.at(0)));
    TestInterface::instance().readMissingFiles();
    TestInterface::instance().changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertAbort);
    CHECKF_AT("core_x", 43, false, "stop");
    return 0;
});

TEST_F(TestInterfaceTest, ReportsBeforeItStopsTheProcess) {
    writeIni(general() + "[assert]\nsend true\n");
    test::SelfProcess child("StopsByTestInterface", {std::filesystem::current_path().generic_string()});
    const std::string bytes = collector.receive().bytes;
    EXPECT_NE(bytes.find("<line>43</line>"), std::string::npos);
    EXPECT_NE(bytes.find("<action>abort</action>"), std::string::npos);
    child.readAll();
    EXPECT_NE(child.wait(), 0);
}

} // namespace
