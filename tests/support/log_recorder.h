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

} // namespace test
