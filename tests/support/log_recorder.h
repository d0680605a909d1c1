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
// pass to it. Thread-safe; one at a time. When it ends, a DefaultLogImpl takes its place.
class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<LogRecord> records() const;

    // "WARN text" and so on, for comparing whole sequences.
    std::vector<std::string> lines() const;

    void clear();
};

// Has the records of NORM, too, which is off at start.
class NormRecorder : public LogRecorder {
public:
    NormRecorder();
    ~NormRecorder();
    NormRecorder(const NormRecorder&) = delete;
    NormRecorder& operator=(const NormRecorder&) = delete;
};

// What the logger prints on standard error when a thread logs while one of its records is being served. The second one
// is the beginning of that, for a record of which only the beginning, `text`, is known.
std::string refusedRecord(const std::string& level, const std::string& text, uint32_t threadNumber = 0);
std::string beginOfRefusedRecord(const std::string& level, const std::string& text);

// Ten threads log `records` records each at `level`: "T - N 0", "T - N 1" and so on, N being the thread's number.
void logFromTenThreads(uint32_t level, int records);

// Expects those records in `texts`, each thread's in order.
void expectRecordsOfTenThreads(const std::vector<std::string>& texts, int records);

} // namespace test
