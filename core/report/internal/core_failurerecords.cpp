#include "core/report/internal/core_failurerecords.h"

#include <algorithm>
#include <utility>

#include "core/report/internal/core_testsettings.h"

namespace NS_CORE {

const FailureRecord* FailureRecords::find(FailureKind kind, std::string_view file, int32_t line) const {
    const auto found = std::find_if(m_records.begin(), m_records.end(), [&](const FailureRecord& record) {
        return record.line == line && record.kind == kind && record.file == file;
    });
    return found == m_records.end() ? nullptr : &*found;
}

FailureRecord* FailureRecords::find(FailureKind kind, std::string_view file, int32_t line) {
    return const_cast<FailureRecord*>(std::as_const(*this).find(kind, file, line));
}

bool FailureRecords::wantsTrace(const Failure& failure, uint32_t actionFlags) const {
    const uint32_t wanted = TestAction::sendBit(failure.kind) | TestAction::backtraceBit(failure.kind);
    if ((actionFlags & wanted) != wanted) return false;
    const FailureRecord* record = find(failure.kind, failure.file, failure.line);
    return record == nullptr || !record->isTraced;
}

FailureRecords::Kept FailureRecords::add(const Failure& failure, std::string backtrace) {
    FailureRecord* record = find(failure.kind, failure.file, failure.line);
    if (record == nullptr) {
        if (m_records.size() >= kMaxRecords) {
            const auto done = std::find_if(m_records.begin(), m_records.end(), [](const FailureRecord& candidate) {
                return candidate.reported == candidate.occurrences;
            });
            if (done == m_records.end()) return std::exchange(m_wasFull, true) ? Kept::NoRoomAgain : Kept::NoRoom;
            m_records.erase(done);
        }
        record = &m_records.emplace_back();
        record->kind = failure.kind;
        record->file = failure.file;
        record->line = failure.line;
        record->condition = failure.condition;
        record->level = failure.level;
    }
    ++record->occurrences;
    record->message = failure.message;
    if (!backtrace.empty() && !record->isTraced) {
        record->isTraced = true;
        record->backtrace = std::move(backtrace);
    }
    return Kept::Yes;
}

const FailureRecord* FailureRecords::firstPending(uint32_t actionFlags) const {
    const auto pending = std::find_if(m_records.begin(), m_records.end(), [&](const FailureRecord& record) {
        return record.reported != record.occurrences && (actionFlags & TestAction::sendBit(record.kind)) != 0;
    });
    return pending == m_records.end() ? nullptr : &*pending;
}

void FailureRecords::markReported(const FailureRecord& sent) {
    if (FailureRecord* kept = find(sent.kind, sent.file, sent.line)) kept->reported = sent.occurrences;
}

bool FailureRecords::markTooLarge(const FailureRecord& unsent) {
    markReported(unsent);
    FailureRecord* kept = find(unsent.kind, unsent.file, unsent.line);
    return kept != nullptr && !std::exchange(kept->wasTooLarge, true);
}

} // namespace NS_CORE
