#include "tests/support/hook_recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <ostream>

#include "core/check/core_assert.h"

namespace test {
namespace {

std::mutex g_mutex;
std::vector<FailedCheck> g_failures;
std::atomic<bool> g_stop{false};
NS_CORE::Assert::FailureHandler g_previous = nullptr;

bool record(const char* expression, std::string_view file, int32_t line, int32_t level, const std::string& message) {
    const std::lock_guard lock(g_mutex);
    g_failures.push_back({expression ? expression : "(null)", std::string(file), line, level, message});
    return g_stop;
}

} // namespace

HookRecorder::HookRecorder() {
    clear();
    g_stop = false;
    g_previous = NS_CORE::Assert::failureHandler();
    NS_CORE::Assert::setFailureHandler(&record);
}

HookRecorder::~HookRecorder() {
    NS_CORE::Assert::setFailureHandler(g_previous);
}

void HookRecorder::answerStop(bool stop) {
    g_stop = stop;
}

std::vector<FailedCheck> HookRecorder::failures() const {
    const std::lock_guard lock(g_mutex);
    return g_failures;
}

FailedCheck HookRecorder::single() const {
    const std::vector<FailedCheck> all = failures();
    EXPECT_EQ(all.size(), 1U);
    return all.empty() ? FailedCheck{} : all.front();
}

void HookRecorder::clear() {
    const std::lock_guard lock(g_mutex);
    g_failures.clear();
}

void PrintTo(const FailedCheck& check, std::ostream* out) {
    *out << check.expression << " at " << check.file << ':' << check.line << " level " << check.level << " \""
         << check.message << '"';
}

} // namespace test
