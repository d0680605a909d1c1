// Failures and reports in any order: none is lost or counted twice, and the records stay bounded.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <map>
#include <string>

#include "core/report/internal/core_failurerecords.h"
#include "core/report/internal/core_testsettings.h"
#include "fuzz/require.h"

using NS_CORE::FailureKind;
using NS_CORE::FailureRecord;
using NS_CORE::FailureRecords;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    FailureRecords records;
    std::map<std::pair<FailureKind, int32_t>, uint64_t> unreported;
    while (input.remaining_bytes() > 0) {
        const auto flags = input.ConsumeIntegral<uint8_t>();
        if ((flags & 0xc0) != 0) {
            const auto kind = input.PickValueInArray({FailureKind::Assertion, FailureKind::Alert});
            const int32_t line = input.ConsumeIntegral<uint8_t>();
            const auto kept = records.add({kind, "c", "f", line, 1, "m"}, (flags & 1) != 0 ? "trace" : "");
            if (kept == FailureRecords::Kept::Yes)
                ++unreported[{kind, line}];
            else
                require(records.size() == FailureRecords::kMaxRecords, "refused where there is room");
        } else if (const FailureRecord* pending = records.firstPending(flags)) {
            const FailureRecord copy = *pending;
            require((flags & NS_CORE::TestAction::sendBit(copy.kind)) != 0, "a kind that is not to be sent");
            require(copy.occurrences - copy.reported == unreported[{copy.kind, copy.line}], "another count");
            unreported[{copy.kind, copy.line}] = 0;
            if ((flags & 1) != 0)
                records.markReported(copy);
            else
                records.markTooLarge(copy);
        }
        require(records.size() <= FailureRecords::kMaxRecords, "too many records");
    }
    while (const FailureRecord* pending = records.firstPending(0x3f)) {
        require(pending->occurrences - pending->reported == unreported[{pending->kind, pending->line}], "lost");
        unreported[{pending->kind, pending->line}] = 0;
        records.markReported(FailureRecord(*pending));
    }
    for (const auto& [place, count] : unreported) require(count == 0, "never reported");
    return 0;
}
