#include "core/log/core_loglimit.h"

#include <algorithm>

#include "core/text/core_varargs.h"
#include "core/time/core_time.h"

namespace NS_CORE {

DefaultLogRImpl::DefaultLogRImpl() : DefaultLogRImpl(&monotonicMilliseconds) {}

DefaultLogRImpl::DefaultLogRImpl(Clock clock) : m_clock(std::move(clock)) {}

void DefaultLogRImpl::finish(const Output& output) {
    const uint64_t nowMs = m_clock();
    while (!m_periods.empty()) drop(m_periods.begin(), nowMs, output);
}

void DefaultLogRImpl::log(LogRate rate, uint32_t level, std::string_view text, const Output& output) {
    const uint64_t nowMs = m_clock();
    const uint64_t endMs = nowMs + uint64_t{static_cast<uint32_t>(rate)} * 1000;
    Key key(level, text);
    const auto known = m_periods.find(key);
    if (known == m_periods.end()) {
        reportEnded(nowMs, output);
        makeRoom(text.size(), nowMs, output);
        output(level, text);
        m_bytes += text.size();
        m_firstEndMs = std::min(m_firstEndMs, endMs);
        m_periods.emplace(std::move(key), Period{nowMs, endMs, /*heldBack=*/0});
        return;
    }
    Period& period = known->second;
    if (nowMs < period.endMs) {
        ++period.heldBack;
        return;
    }
    if (period.heldBack == 0)
        output(level, text);
    else
        report(known->first, period.heldBack + 1, period.beginMs, nowMs, output);
    period = {nowMs, endMs, /*heldBack=*/0};
    reportEnded(nowMs, output);
}

void DefaultLogRImpl::reportEnded(uint64_t nowMs, const Output& output) {
    if (nowMs < m_firstEndMs) return;
    m_firstEndMs = UINT64_MAX;
    for (auto at = m_periods.begin(); at != m_periods.end();) {
        const auto current = at++;
        if (nowMs >= current->second.endMs)
            drop(current, nowMs, output);
        else
            m_firstEndMs = std::min(m_firstEndMs, current->second.endMs);
    }
}

void DefaultLogRImpl::makeRoom(size_t textLength, uint64_t nowMs, const Output& output) {
    while (!m_periods.empty() && (m_periods.size() >= kMaxTexts || m_bytes + textLength > kMaxBytes)) {
        drop(std::ranges::min_element(m_periods, {}, [](const auto& entry) { return entry.second.beginMs; }), nowMs,
             output);
    }
}

void DefaultLogRImpl::drop(Periods::iterator at, uint64_t nowMs, const Output& output) {
    if (at->second.heldBack > 0) report(at->first, at->second.heldBack, at->second.beginMs, nowMs, output);
    m_bytes -= at->first.second.size();
    m_periods.erase(at);
}

void DefaultLogRImpl::report(const Key& key, int32_t times, uint64_t beginMs, uint64_t nowMs, const Output& output) {
    const auto seconds = static_cast<int32_t>((nowMs - beginMs) / 1000);
    output(key.first, formatString("%s [%d times in %ld seconds]", key.second, times, seconds));
}

} // namespace NS_CORE
