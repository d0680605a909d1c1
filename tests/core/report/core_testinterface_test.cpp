#include "core/report/core_testinterface.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "core/check/core_assert.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "tests/core/report/testinterface_fixture.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/self_process.h"
#include "tests/support/semaphore.h"

using NS_CORE::Assert;

namespace {

// Settings and exclusions.

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
    writeIni("[general]\nsend_port 3");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings().sendPort, 3);
}

TEST_F(TestInterfaceTest, ChangesWhatTheFileNamesAndNothingElse) {
    writeIni("[general]\nsend_port 25001\nsend_address 10.0.0.1\nsymbol_server_address s\n");
    EXPECT_TRUE(interface.loadIni());
    interface.changeActionFlags(TestInterface::FlagChange::Set, 0x3f);
    Assert::setLevel(0);
    NS_CORE::TestSettings expected{0, "10.0.0.1", 25001, "s", 0x3f};
    for (const char* naming : {"", "[gener", "[general]\nsend_addr"}) {
        writeIni(naming);
        EXPECT_TRUE(interface.loadIni());
        EXPECT_EQ(interface.settings(), expected) << naming;
    }
    EXPECT_EQ(Assert::level(), 0);
    writeIni("[assert]\nabort false\n");
    EXPECT_TRUE(interface.loadIni());
    expected.actionFlags = 0x3e;
    EXPECT_EQ(interface.settings(), expected);
    writeIni("[general]\nassert_level 3\nsend_port 7\n");
    EXPECT_TRUE(interface.loadIni());
    expected.assertLevel = 1;
    expected.sendPort = 7;
    EXPECT_EQ(interface.settings(), expected);
    EXPECT_EQ(Assert::level(), 1);
    EXPECT_EQ(log.lines(), Strings());
}

TEST_F(TestInterfaceTest, PrefersTheExclusionsInSettings) {
    test::writeFile(dir.path() / "assert.exclude", "core_x 1 2035-01-01\n");
    EXPECT_TRUE(interface.loadExclusions());
    EXPECT_TRUE(interface.isExcluded("core_x", 1));
    writeExclusions("core_x 3 2035-01-01\ncore_x 2 2035-01-01\n");
    EXPECT_TRUE(interface.loadExclusions());
    EXPECT_FALSE(interface.isExcluded("core_x", 1)) << "each reading replaces the list";
    EXPECT_TRUE(interface.isExcluded("core_x", 2));
}

TEST_F(TestInterfaceTest, LogsOnceForTheFileWhichExclusionsDoNotApply) {
    writeExclusions("a 1 x\na 3 2001-01-01\n");
    EXPECT_TRUE(interface.loadExclusions());
    const std::string start = "CORE::TestInterface::loadExclusions - 'settings/assert.exclude': ";
    EXPECT_EQ(log.lines(), (Strings{"WARN " + start + "1 entries ignored, their dates are not YYYY-MM-DD",
                                    "INFO " + start + "1 entries ignored, this build is later than their dates"}));
}

TEST_F(TestInterfaceTest, ReadsLargeFilesWhole) {
    const std::string comment = "# " + std::string(990, 'x') + '\n';
    std::string comments;
    while (comments.size() < 1'000'000) comments += comment;
    std::string unknown;
    for (int i = 0; i < 150; ++i) unknown += "nonsense 1\n";
    writeIni("[assert]\n" + unknown + comments + "send true\nlast 1\n");
    writeExclusions(comments + "core_x 1 2035-01-01\na 1 x\n");
    interface.readFiles();
    EXPECT_EQ(interface.settings().actionFlags, TestAction::AssertSend);
    EXPECT_TRUE(interface.isExcluded("core_x", 1));
    ASSERT_EQ(log.lines().size(), 152U);
    EXPECT_NE(log.lines().back().find("loadExclusions"), std::string::npos)
        << "first the settings, then the exclusions";
}

TEST_F(TestInterfaceTest, BoundsTheListOfExclusions) {
    std::string text;
    for (int32_t line = 0; line < 100'001; ++line) text += "u " + std::to_string(line) + " 2035-01-01\n";
    writeExclusions(text);
    EXPECT_TRUE(interface.loadExclusions());
    EXPECT_TRUE(interface.isExcluded("u", 99'999));
    EXPECT_FALSE(interface.isExcluded("u", 100'000));
    EXPECT_EQ(log.lines(), Strings{"WARN CORE::TestInterface::loadExclusions - 'settings/assert.exclude': 1 entries "
                                   "ignored, there are too many"});
}

TEST_F(TestInterfaceTest, SurvivesBinarySettings) {
    std::string bytes = "[general]\n";
    for (int i = 0; i < 200'000; ++i) bytes += static_cast<char>(i * 7919 >> 3);
    writeIni(bytes);
    writeExclusions(bytes);
    interface.readFiles();
    EXPECT_EQ(interface.settings(), NS_CORE::TestSettings());
}

// Reports.

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

TEST_F(TestInterfaceTest, SendsEveryFailureAtOnce) {
    configure();
    for (uint64_t total = 1; total <= 3; ++total) {
        fail(5, "m" + std::to_string(total));
        EXPECT_EQ(collector.receive().bytes, document(5, 1, total, "m" + std::to_string(total)));
    }
    EXPECT_EQ(interface.recordCount(), 1U);
    interface.sendPending();
    expectNoMore();
}

TEST_F(TestInterfaceTest, SendsNothingWithoutTheSendBitOfTheKind) {
    configure("[assert]\nsend false\n[alert]\nsend true\n");
    for (const int32_t line : {3, 1, 1}) fail(line);
    fail(2, "m", FailureKind::Alert);
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 1, "m", "continue", "ALERT"));
    expectNoMore();
    // What was counted meanwhile is sent as soon as it is wanted, in the order in which it is kept.
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertSend);
    fail(1, "latest");
    EXPECT_EQ(collector.receive().bytes, document(3, 1, 1));
    EXPECT_EQ(collector.receive().bytes, document(1, 3, 3, "latest"));
    interface.changeActionFlags(TestInterface::FlagChange::Clear, TestAction::AssertSend);
    EXPECT_EQ(interface.settings().actionFlags, TestAction::AlertSend);
}

TEST_F(TestInterfaceTest, WritesTheActionOfTheKind) {
    configure();
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertAbort);
    EXPECT_TRUE(interface.aborts(FailureKind::Assertion));
    EXPECT_FALSE(interface.aborts(FailureKind::Alert));
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 1, 1, "m", "abort"));
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
    EXPECT_TRUE(trace.starts_with("#01 in NS_CORE::TestInterface::trace() ")) << trace;
    const std::string second = trace.substr(trace.find('\n') + 1);
    EXPECT_TRUE(second.starts_with("#02 in NS_CORE::TestInterface::report() ")) << trace;
    EXPECT_NE(second.find("fail() "), std::string::npos) << trace;
    fail(1);
    EXPECT_NE(collector.receive().bytes.find(trace), std::string::npos);
}

TEST_F(TestInterfaceTest, LogsOnceThatThereIsNoRoomForFurtherPlaces) {
    for (int32_t line = 0; line < 1000; ++line) fail(line);
    EXPECT_EQ(interface.recordCount(), NS_CORE::FailureRecords::kMaxRecords);
    EXPECT_EQ(log.lines(), Strings{"WARN CORE::TestInterface::sendAsserts - 256 places with failures wait for their "
                                   "report, further ones are not kept"});
}

TEST_F(TestInterfaceTest, LogsOnceThatADocumentIsTooLarge) {
    configure();
    const std::string fits(TestInterface::kMaxDatagram - document(1, 1, 1, "").size(), 'x');
    fail(1, fits);
    EXPECT_EQ(collector.receive().bytes, document(1, 1, 1, fits));
    fail(2, fits + "x");
    fail(2, fits + "x");
    EXPECT_EQ(log.lines(),
              Strings{"WARN CORE::TestInterface::sendAsserts - report of core_x:2 not sent, its 65508 bytes are more "
                      "than a datagram holds"});
    // Others go out, and so does this one once it fits.
    fail(3);
    EXPECT_EQ(collector.receive().bytes, document(3, 1, 1));
    fail(2, "short");
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 3, "short"));
}

TEST_F(TestInterfaceTest, LogsAnAddressThatIsNotOneWhenItReadsTheSettings) {
    configure("[assert]\nsend true\n", "collector.example");
    for (int32_t i = 0; i < 100; ++i) fail(i % 7);
    interface.sendPending();
    EXPECT_EQ(log.lines(), (Strings{"WARN CORE::SetSockAddr - invalid ip 'collector.example'",
                                    "WARN CORE::TestInterface::sendAsserts - nothing is sent to 'collector.example'"}));
    // With better settings all goes out.
    configure();
    interface.sendPending();
    EXPECT_EQ(collector.receive().bytes, document(0, 15, 15));
}

TEST_F(TestInterfaceTest, KeepsWhatTheSystemRefusesToSend) {
    // Sending to the broadcast address takes a right that this socket does not ask for.
    configure("[assert]\nsend true\n", "255.255.255.255");
    fail(1);
    fail(2);
    // Once for each failure: the second place is not tried where the first is refused.
    ASSERT_EQ(log.lines().size(), 2U);
    for (const std::string& line : log.lines()) EXPECT_NE(line.find("failed in sendto"), std::string::npos);
    configure();
    fail(2);
    EXPECT_EQ(collector.receive().bytes, document(1, 1, 1));
    EXPECT_EQ(collector.receive().bytes, document(2, 2, 2));
    expectNoMore();
}

TEST_F(TestInterfaceTest, DoesNotMissACollectorThatIsNotThere) {
    // Nobody listens there; on some systems a later datagram's sender hears of it.
    writeIni("[general]\nsend_address 127.0.0.1\nsend_port 9\n[assert]\nsend true\n");
    ASSERT_TRUE(interface.loadIni());
    for (int32_t line = 0; line < 100; ++line) fail(line);
    EXPECT_EQ(log.lines(), Strings());
    configure();
    fail(7);
    EXPECT_EQ(collector.receive().bytes, document(7, 1, 2)) << "what nobody took is not sent again";
}

uint64_t numberIn(const std::string& document, const std::string& element) {
    const size_t at = document.find("<" + element + ">");
    return at == std::string::npos ? 0 : std::stoull(document.substr(at + element.size() + 2));
}

// Everything at once, from as many threads as there are calls. The failures never outrun the collector's buffer, so
// that every document arrives.
TEST_F(TestInterfaceTest, CountsEveryFailureOfSeveralThreads) {
    configure("[assert]\nsend true\nbacktrace true\n");
    writeExclusions("core_x 99 2035-01-01\n");
    constexpr int kThreads = 4;
    constexpr int kFailures = 1'000;
    test::Semaphore mayFail(8);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([this, &mayFail] {
            for (int i = 0; i < kFailures; ++i) {
                mayFail.acquire();
                fail(i % 2);
            }
        });
    const std::function<void()> others[] = {
        [this] { interface.setLogAddress("address"); },
        [this] { interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AlertSend); },
        [this] { interface.loadIni(); },
        [this] { interface.loadExclusions(); },
        [this] { EXPECT_LE(interface.recordCount() + interface.settings().actionFlags, 100U); },
        [this] { EXPECT_FALSE(interface.isExcluded("core_x", 1) || interface.aborts(FailureKind::Assertion)); },
        [this] { interface.sendPending(); },
    };
    std::vector<std::jthread> callers;
    for (const std::function<void()>& call : others)
        callers.emplace_back([&call](const std::stop_token& stop) {
            for (; !stop.stop_requested(); std::this_thread::yield()) call();
        });
    uint64_t counts[2] = {};
    while (counts[0] + counts[1] < kThreads * kFailures) {
        const std::string bytes = collector.receive().bytes;
        EXPECT_TRUE(bytes.ends_with("</assert>")) << bytes;
        const uint64_t line = numberIn(bytes, "line");
        const uint64_t count = numberIn(bytes, "count");
        if (line > 1 || count == 0) break;
        counts[line] += count;
        EXPECT_EQ(numberIn(bytes, "total"), counts[line]);
        for (uint64_t i = 0; i < count; ++i) mayFail.release();
    }
    for (int i = 0; i < kThreads * kFailures; ++i) mayFail.release();
    threads.clear();
    callers.clear();
    EXPECT_EQ(counts[0], counts[1]);
    expectNoMore();
}

// An implementation whose check fails while a message of the interface's own is being written, on its thread and on
// another.
void setFailingImplementation(TestInterface& interface) {
    test::setImplementation([&interface](const auto& /*record*/) {
        const auto report = [&] { interface.report({FailureKind::Assertion, "inner", "core_y", 1, 1, ""}); };
        report();
        std::thread(report).join();
    });
}

TEST_F(TestInterfaceTest, IsNotLockedWhileItLogs) {
    // The socket logs that it is refused.
    configure("[assert]\nsend true\n", "255.255.255.255");
    setFailingImplementation(interface);
    fail(1);
    // Threads whose failures stop the process wait for a second; here two do, one after the other. A busy machine may
    // need another try.
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertAbort);
    std::chrono::nanoseconds waited = std::chrono::seconds(4);
    for (int i = 0; i < 5 && waited >= std::chrono::seconds(4); ++i) {
        const auto begin = std::chrono::steady_clock::now();
        fail(1);
        waited = std::chrono::steady_clock::now() - begin;
    }
    EXPECT_LT(waited, std::chrono::seconds(4));
    NS_CORE::MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(interface.recordCount(), 2U);
}

TEST_F(TestInterfaceTest, SendsWhatAnotherThreadCouldNot) {
    configure("[assert]\nsend true\n");
    // The first document is too large, which the interface logs while it sends; the failures from there stay pending.
    setFailingImplementation(interface);
    fail(1, std::string(TestInterface::kMaxDatagram, 'x'));
    NS_CORE::MasterLogger::setImplementation(nullptr);
    const std::string bytes = collector.receive().bytes;
    EXPECT_EQ(numberIn(bytes, "count"), 2U) << bytes;
    expectNoMore();
}

TEST_F(TestInterfaceTest, WaitsForAnotherThreadsSendingBeforeTheProcessStops) {
    configure();
    test::Semaphore isLogging;
    test::Semaphore mayGoOn;
    // Holds the thread that logs, and with it the right to send, until it is released.
    test::setImplementation([&](const auto& /*record*/) {
        isLogging.release();
        mayGoOn.acquire();
    });
    std::thread sender([this] { fail(1, std::string(TestInterface::kMaxDatagram, 'x')); });
    isLogging.acquire();
    interface.changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertAbort);
    std::atomic<bool> isReleased = false;
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        isReleased = true;
        mayGoOn.release();
    });
    fail(2);
    EXPECT_TRUE(isReleased);
    releaser.join();
    sender.join();
    NS_CORE::MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 1, "m", "abort"));
}

TEST_F(TestInterfaceTest, RequestsLogs) {
    configure();
    interface.requestSendLogs("a&b", "<12>");
    EXPECT_EQ(collector.receive().bytes,
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<sendlogs>\n  <file>a&amp;b</file>\n"
              "  <line>&lt;12&gt;</line>\n  <server>" +
                  server() + "</server>\n</sendlogs>");
}

TEST_F(TestInterfaceTest, RequestsLogsWhileTheSettingsChange) {
    configure();
    std::thread reader([this] {
        for (int i = 0; i < 50; ++i) interface.loadIni();
    });
    for (int i = 0; i < 50; ++i) interface.requestSendLogs("a", "1");
    reader.join();
    EXPECT_EQ(log.lines(), Strings());
}

// The process's own, as failing checks meet it.
TEST_F(TestInterfaceTest, ReportsFailedChecks) {
    Assert::installFailureHandler(&Assert::failDefault);
    writeIni(general() + "[assert]\nsend true\n");
    writeExclusions("core_x 41 2035-01-01\n");
    TestInterface::instance().readFiles();
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

// Stops at a failed check. Start-up has read the settings of the directory that it begins in.
const test::ChildProgram g_stopsByTestInterface("StopsByTestInterface", [](const Strings& /*arguments*/) {
    TestInterface::instance().changeActionFlags(TestInterface::FlagChange::Set, TestAction::AssertAbort);
    CHECKF_AT("core_x", 43, false, "stop");
    return 0;
});

TEST_F(TestInterfaceTest, ReportsBeforeItStopsTheProcess) {
    writeIni(general() + "[assert]\nsend true\n");
    test::SelfProcess child("StopsByTestInterface");
    const std::string bytes = collector.receive().bytes;
    EXPECT_NE(bytes.find("<line>43</line>"), std::string::npos);
    EXPECT_NE(bytes.find("<action>abort</action>"), std::string::npos);
    child.readAll();
    EXPECT_NE(child.wait(), 0);
}

} // namespace
