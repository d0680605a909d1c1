#include "tests/support/log_recorder.h"

#include <memory>
#include <mutex>

#include "core/log/core_v2masterlogger.h"

namespace test {
namespace {

std::mutex g_mutex;
std::vector<LogRecord> g_records;
std::vector<std::string> g_lines;

class RecordingLogImpl : public NS_CORE::LogImpl {
public:
    void log(uint32_t level, uint32_t threadNumber, const NS_CORE::LevelEntry& levelEntry,
             uint8_t /*implementationBits*/, const char* text, size_t textLength) override {
        const std::lock_guard lock(g_mutex);
        const std::string body(text, textLength);
        g_records.push_back({level, threadNumber, body});
        g_lines.push_back(levelEntry.name + std::string(" ") + body);
    }
};

} // namespace

LogRecorder::LogRecorder() {
    clear();
    NS_CORE::MasterLogger::setImplementation(std::make_unique<RecordingLogImpl>());
}

LogRecorder::~LogRecorder() {
    NS_CORE::MasterLogger::setImplementation(nullptr);
}

std::vector<LogRecord> LogRecorder::records() const {
    const std::lock_guard lock(g_mutex);
    return g_records;
}

std::vector<std::string> LogRecorder::lines() const {
    const std::lock_guard lock(g_mutex);
    return g_lines;
}

void LogRecorder::clear() {
    const std::lock_guard lock(g_mutex);
    g_records.clear();
    g_lines.clear();
}

} // namespace test
