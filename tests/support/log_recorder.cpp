#include "tests/support/log_recorder.h"

#include <memory>
#include <mutex>

#include "core/log/core_v2masterlogger.h"

using NS_CORE::MasterLogger;

namespace test {
namespace {

std::mutex g_logMutex;
std::vector<LogRecord> g_records;
std::vector<std::string> g_lines;

class RecordingLogImpl : public NS_CORE::LogImpl {
public:
    void log(uint32_t level, uint32_t threadNumber, const NS_CORE::LevelEntry& levelEntry,
             uint8_t /*implementationBits*/, const char* text, size_t textLength) override {
        const std::lock_guard lock(g_logMutex);
        const std::string body(text, textLength);
        g_records.push_back({level, threadNumber, body});
        g_lines.push_back(levelEntry.name + std::string(" ") + body);
    }
};

} // namespace

LogRecorder::LogRecorder(bool hasNorm) : m_hasNorm(hasNorm) {
    clear();
    MasterLogger::setImplementation(std::make_unique<RecordingLogImpl>());
    if (m_hasNorm) MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 8);
}

LogRecorder::~LogRecorder() {
    MasterLogger::setImplementation(nullptr);
    if (m_hasNorm) MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 0);
}

std::vector<LogRecord> LogRecorder::records() const {
    const std::lock_guard lock(g_logMutex);
    return g_records;
}

std::vector<std::string> LogRecorder::lines() const {
    const std::lock_guard lock(g_logMutex);
    return g_lines;
}

void LogRecorder::clear() {
    const std::lock_guard lock(g_logMutex);
    g_records.clear();
    g_lines.clear();
}

std::string refusedRecord(const std::string& level, const std::string& text, uint32_t threadNumber) {
    return "MasterLogger:implLog - called recursively!\n  <[" + level + "] {" + std::to_string(threadNumber) + "} " +
           text + ">\n";
}

std::string beginOfRefusedRecord(const std::string& level, const std::string& text) {
    std::string record = refusedRecord(level, text);
    record.resize(record.size() - 2);
    return record;
}

} // namespace test
