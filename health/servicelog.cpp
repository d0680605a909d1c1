#include "health/servicelog.h"

namespace health {
namespace {

constexpr std::string_view kRunning = "Run - Running";
constexpr std::string_view kFailed = "Run - Run: 'quorkeri_wrapper.exe' failed";
constexpr std::string_view kStop = "Stop - Stop";
constexpr std::string_view kCompleted = "UTL::Service::serviceMain - ==== Completed ";
constexpr std::string_view kStartFailed = "NS_UTL::ProcessUtils::start - failed to start 'quorkeri_wrapper.exe': ";

constexpr LocalSeconds kHour = 3600;

// Takes the stamp, "2026-01-02 02 03:04:05 ", from the front of a line; false where there is none.
bool takeStamp(std::string_view& line, LocalSeconds* time) {
    constexpr size_t kLength = 23;
    constexpr size_t kDate = 10;
    constexpr size_t kDayAgain = 3; // " 02"
    if (line.size() < kLength || line[kLength - 1] != ' ') return false;
    std::string once(line.substr(0, kDate));
    once += line.substr(kDate + kDayAgain, kLength - kDate - kDayAgain);
    if (!parseTime(once, time)) return false;
    line.remove_prefix(kLength);
    return true;
}

class Reader {
public:
    explicit Reader(LocalSeconds now) : m_now(now) {}

    void readAll(std::string_view bytes) {
        while (!bytes.empty()) {
            const size_t length = bytes.find('\n');
            readLine(bytes.substr(0, length));
            bytes.remove_prefix(length == std::string_view::npos ? bytes.size() : length + 1);
        }
    }

    const LogSummary& summary() const { return m_summary; }

private:
    void readLine(std::string_view line) {
        LocalSeconds time = 0;
        if (!takeStamp(line, &time)) return;
        m_summary.lastLine = time;
        if (line == kRunning)
            beginLife();
        else if (line == kFailed)
            addRestart(time);
        else if (line == kStop)
            addStop(time);
        else if (line.starts_with(kCompleted))
            m_summary.stop.reset();
        else if (line.starts_with(kStartFailed))
            m_reason = withoutLineEnd(line.substr(kStartFailed.size()));
    }

    // A system's text ends with a line break of its own, whose first half is the end of this line.
    static std::string withoutLineEnd(std::string_view text) {
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) text.remove_suffix(1);
        return std::string(text);
    }

    void beginLife() {
        m_summary.stop.reset();
        m_summary.startFailure.reset();
        m_summary.restartsBeforeStop = m_summary.restartsAfterStop = 0;
        m_reason.reset();
    }

    void addRestart(LocalSeconds time) {
        if (time > m_now - kHour && time <= m_now) ++m_summary.restartsLastHour;
        ++(m_summary.stop ? m_summary.restartsAfterStop : m_summary.restartsBeforeStop);
        // A start that failed has logged its reason just before this line.
        m_summary.startFailure = m_reason;
        m_reason.reset();
    }

    void addStop(LocalSeconds time) {
        // The first one counts: the manager refuses later ones, or they ask for the same.
        if (!m_summary.stop) m_summary.stop = time;
    }

    LocalSeconds m_now;
    LogSummary m_summary;
    std::optional<std::string> m_reason;
};

} // namespace

LogSummary readServiceLog(std::string_view old, std::string_view current, LocalSeconds now) {
    Reader reader(now);
    reader.readAll(old);
    reader.readAll(current);
    return reader.summary();
}

} // namespace health
