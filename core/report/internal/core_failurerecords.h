#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/report/core_failuredefault.h"

namespace NS_CORE {

// All failures of one kind at one place.
struct FailureRecord {
    FailureKind kind = FailureKind::Assertion;
    std::string file;
    int32_t line = 0;
    std::string condition; // of the first failure
    std::string message;   // of the latest
    std::string backtrace; // of the first failure that brought one
    int32_t level = 0;
    uint64_t occurrences = 0;
    uint64_t reported = 0; // occurrences that need no further report
    bool isTraced = false;
    bool wasTooLarge = false; // a warning has been logged
};

// Which failures are kept, and which of them still have to be reported. Only counts: it sends nothing
// and logs nothing. Not thread-safe.
//
// A record is pending while its two counts differ and failures of its kind are to be sent.
class FailureRecords {
public:
    static constexpr size_t kMaxRecords = 256;

    // Whether a backtrace must be taken for this failure. A trace costs a thousand times what a failure does. So each
    // record gets one at most, and only if failures of its kind are sent with backtraces.
    bool wantsTrace(const Failure& failure, uint32_t actionFlags) const;

    enum class Kept { Yes, NoRoom, NoRoomAgain };
    // Counts the failure. If kMaxRecords places are kept already, a new one replaces the oldest that has no unreported
    // occurrences. If all have some, the failure is not kept: NoRoom the first time, NoRoomAgain from then on.
    // backtrace  kept if wantsTrace() asked for it; else empty.
    Kept add(const Failure& failure, std::string backtrace);

    // The first pending record in the order in which they are kept; null when there is none. Valid until the next
    // change.
    const FailureRecord* firstPending(uint32_t actionFlags) const;

    // Marks as reported the occurrences that `sent`, a copy of a pending record, has counted. Later ones stay pending.
    void markReported(const FailureRecord& sent);

    // The same for a report too large for a datagram. Returns true the first time for each record.
    bool markTooLarge(const FailureRecord& unsent);

    size_t size() const { return m_records.size(); }

private:
    const FailureRecord* find(FailureKind kind, std::string_view file, int32_t line) const;
    FailureRecord* find(FailureKind kind, std::string_view file, int32_t line);

    std::vector<FailureRecord> m_records;
    bool m_wasFull = false;
};

} // namespace NS_CORE
