#include "core/report/internal/core_failurerecords.h"

#include <gtest/gtest.h>

#include "core/report/internal/core_testsettings.h"

using NS_CORE::Failure;
using NS_CORE::FailureKind;
using NS_CORE::FailureRecord;
using NS_CORE::FailureRecords;
namespace TestAction = NS_CORE::TestAction;

namespace {

constexpr uint32_t kSend = TestAction::AssertSend | TestAction::AlertSend;

Failure failureAt(int32_t line, FailureKind kind = FailureKind::Assertion, std::string_view message = "m") {
    return {kind, "condition", "file", line, 1, message};
}

struct FailureRecordsTest : testing::Test {
    FailureRecords records;

    FailureRecords::Kept add(const Failure& failure, std::string backtrace = "") {
        return records.add(failure, std::move(backtrace));
    }
    // "line:unreported/all" of the first pending record; "none".
    std::string pending(uint32_t flags = kSend) const {
        const FailureRecord* record = records.firstPending(flags);
        if (record == nullptr) return "none";
        return std::to_string(record->line) + ':' + std::to_string(record->occurrences - record->reported) + '/' +
               std::to_string(record->occurrences);
    }
    void reportFirst() { records.markReported(FailureRecord(*records.firstPending(kSend))); }
};

TEST_F(FailureRecordsTest, KeepsTheFirstConditionTheLatestMessageAndTheFirstBacktrace) {
    add({FailureKind::Alert, "a", "file", 1, 1, "first"});
    add({FailureKind::Alert, "b", "file", 1, 0, "second"}, "trace 1");
    add({FailureKind::Alert, "c", "file", 1, 0, "third"}, "trace 2");
    const FailureRecord record = *records.firstPending(kSend);
    EXPECT_EQ(record.kind, FailureKind::Alert);
    EXPECT_EQ(record.file + ' ' + record.condition + ' ' + record.message + ' ' + record.backtrace,
              "file a third trace 1");
    EXPECT_EQ(record.level, 1);
    EXPECT_EQ(pending(), "1:3/3");
}

TEST_F(FailureRecordsTest, IsOneRecordForEachKindFileAndLine) {
    add(failureAt(1));
    add(failureAt(1, FailureKind::Alert));
    add(failureAt(2));
    add({FailureKind::Assertion, "condition", "file2", 1, 1, "m"});
    add(failureAt(1));
    EXPECT_EQ(records.size(), 4U);
    EXPECT_EQ(pending(), "1:2/2");
}

TEST_F(FailureRecordsTest, ArePendingInTheirOrderUntilTheyAreReported) {
    EXPECT_EQ(pending(), "none");
    for (const int32_t line : {3, 1, 3}) add(failureAt(line));
    EXPECT_EQ(pending(), "3:2/2");
    const FailureRecord sent = *records.firstPending(kSend);
    add(failureAt(3)); // while the report of the first two was under way
    records.markReported(sent);
    EXPECT_EQ(pending(), "3:1/3");
    reportFirst();
    EXPECT_EQ(pending(), "1:1/1");
    reportFirst();
    EXPECT_EQ(pending(), "none");
}

TEST_F(FailureRecordsTest, ArePendingOnlyWhereTheirKindIsSent) {
    add(failureAt(1));
    add(failureAt(2, FailureKind::Alert));
    EXPECT_EQ(pending(TestAction::AlertSend), "2:1/1");
    EXPECT_EQ(pending(TestAction::AssertSend), "1:1/1");
    EXPECT_EQ(pending(~kSend), "none");
}

TEST_F(FailureRecordsTest, WantATraceOnceAndOnlyToSendIt) {
    for (const FailureKind kind : {FailureKind::Assertion, FailureKind::Alert}) {
        const uint32_t both = TestAction::sendBit(kind) | TestAction::backtraceBit(kind);
        const Failure failure = failureAt(7, kind);
        EXPECT_FALSE(records.wantsTrace(failure, ~TestAction::sendBit(kind)));
        EXPECT_FALSE(records.wantsTrace(failure, ~TestAction::backtraceBit(kind)));
        EXPECT_TRUE(records.wantsTrace(failure, both));
        add(failure);
        EXPECT_TRUE(records.wantsTrace(failure, both));
        add(failure, "trace");
        EXPECT_FALSE(records.wantsTrace(failure, both));
        EXPECT_TRUE(records.wantsTrace(failureAt(8, kind), both));
    }
}

TEST_F(FailureRecordsTest, TheOldestReportedOneMakesRoom) {
    const auto max = static_cast<int32_t>(FailureRecords::kMaxRecords);
    for (int32_t line = 0; line < max; ++line) {
        EXPECT_EQ(add(failureAt(line)), FailureRecords::Kept::Yes);
        if (line == 1 || line == 2) records.markReported(FailureRecord(*records.firstPending(kSend)));
    }
    // The lines 0 and 1 are reported: marking goes by order.
    EXPECT_EQ(pending(), "2:1/1");
    EXPECT_EQ(add(failureAt(max)), FailureRecords::Kept::Yes);
    EXPECT_EQ(add(failureAt(1)), FailureRecords::Kept::Yes) << "is still kept";
    EXPECT_EQ(add(failureAt(max + 1)), FailureRecords::Kept::NoRoom);
    EXPECT_EQ(add(failureAt(0)), FailureRecords::Kept::NoRoomAgain) << "has made room";
    EXPECT_EQ(pending(), "1:1/2");
    EXPECT_EQ(records.size(), FailureRecords::kMaxRecords);
}

TEST_F(FailureRecordsTest, ReportsThatAreTooLargeAreDealtWithAndWarnedAboutOnce) {
    add(failureAt(1));
    add(failureAt(2));
    EXPECT_TRUE(records.markTooLarge(FailureRecord(*records.firstPending(kSend))));
    EXPECT_EQ(pending(), "2:1/1");
    add(failureAt(1));
    EXPECT_FALSE(records.markTooLarge(FailureRecord(*records.firstPending(kSend))));
    EXPECT_EQ(pending(), "2:1/1");
}

} // namespace
