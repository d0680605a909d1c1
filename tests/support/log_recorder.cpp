#include "tests/support/log_recorder.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "core/log/core_v2masterlogger.h"

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

LogRecorder::LogRecorder() {
    clear();
    NS_CORE::MasterLogger::setImplementation(std::make_unique<RecordingLogImpl>());
}

LogRecorder::~LogRecorder() {
    NS_CORE::MasterLogger::setImplementation(nullptr);
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

NormRecorder::NormRecorder() {
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 8);
}

NormRecorder::~NormRecorder() {
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 0);
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

void logFromTenThreads(uint32_t level, int records) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 10; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < records; ++i) MLOG_LEVEL(level, "T", "%u %d", NS_CORE::MasterLogger::threadNumber(), i);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

void expectRecordsOfTenThreads(const std::vector<std::string>& texts, int records) {
    std::map<std::string, int> next;
    for (const std::string& text : texts) {
        const std::string number = text.substr(4, text.rfind(' ') - 4);
        EXPECT_EQ(text, "T - " + number + " " + std::to_string(next[number]++));
    }
    EXPECT_EQ(texts.size(), static_cast<size_t>(10 * records));
    EXPECT_EQ(next.size(), size_t{10});
    EXPECT_FALSE(next.contains("0")) << "the main thread's number";
}

} // namespace test
