#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

struct LogRecord {
    uint32_t level;
    uint32_t threadNumber;
    std::string text;

    bool operator==(const LogRecord&) const = default;
};

// Is the process's log implementation from its construction on, and keeps the records of CRIT, WARN and INFO that
// pass to it. With `hasNorm`, which is for the main thread alone, it keeps those of NORM, too, a level that is off at
// start. Thread-safe; one at a time. When it ends, a DefaultLogImpl takes its place.
class LogRecorder {
public:
    explicit LogRecorder(bool hasNorm = false);
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<LogRecord> records() const;

    // "WARN text" and so on, for comparing whole sequences.
    std::vector<std::string> lines() const;

    void clear();

private:
    bool m_hasNorm;
};

// What the logger prints on standard error when a thread logs while one of its records is being served. The second one
// is the beginning of that, for a record of which only the beginning, `text`, is known.
std::string refusedRecord(const std::string& level, const std::string& text, uint32_t threadNumber = 0);
std::string beginOfRefusedRecord(const std::string& level, const std::string& text);

} // namespace test
