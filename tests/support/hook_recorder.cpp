#include "tests/support/hook_recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <ostream>

#include "core/check/core_assert.h"

namespace test {
namespace {

std::mutex g_hookMutex;
std::vector<FailedCheck> g_failures;
size_t g_read = 0; // how many of them the test has seen
std::atomic<bool> g_stop{false};
NS_CORE::Assert::FailureHandler g_previous = nullptr;

FailedCheck checkOf(const char* expression, std::string_view file, int32_t line, int32_t level,
                    const std::string& message) {
    return {expression ? expression : "(null)", std::string(file), line, level, message};
}

bool record(const char* expression, std::string_view file, int32_t line, int32_t level, const std::string& message) {
    const std::lock_guard lock(g_hookMutex);
    g_failures.push_back(checkOf(expression, file, line, level, message));
    return g_stop;
}

bool failTest(const char* expression, std::string_view file, int32_t line, int32_t level, const std::string& message) {
    ADD_FAILURE() << "unexpected failed check: "
                  << testing::PrintToString(checkOf(expression, file, line, level, message));
    return NS_CORE::Assert::failDefault(expression, file, line, level, message);
}

// For each test anew, because tests of the logger's end leave the quiet handler behind.
class InstallForEachTest : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { NS_CORE::Assert::installFailureHandler(&failTest); }
};

} // namespace

HookRecorder::HookRecorder() {
    clear();
    g_stop = false;
    g_previous = NS_CORE::Assert::failureHandler();
    NS_CORE::Assert::installFailureHandler(&record);
}

HookRecorder::~HookRecorder() {
    NS_CORE::Assert::installFailureHandler(g_previous);
    const std::lock_guard lock(g_hookMutex);
    for (; g_read < g_failures.size(); ++g_read)
        ADD_FAILURE() << "failed check that the test has not read: " << testing::PrintToString(g_failures[g_read]);
}

void failTestsOnFailedChecks() {
    testing::UnitTest::GetInstance()->listeners().Append(new InstallForEachTest);
}

void HookRecorder::answerStop(bool stop) {
    g_stop = stop;
}

std::vector<FailedCheck> HookRecorder::failures() const {
    const std::lock_guard lock(g_hookMutex);
    g_read = g_failures.size();
    return g_failures;
}

FailedCheck HookRecorder::single() const {
    const std::vector<FailedCheck> all = failures();
    EXPECT_EQ(all.size(), 1U);
    return all.empty() ? FailedCheck{} : all.front();
}

void HookRecorder::clear() {
    const std::lock_guard lock(g_hookMutex);
    g_failures.clear();
    g_read = 0;
}

void PrintTo(const FailedCheck& check, std::ostream* out) {
    *out << check.expression << " at " << check.file << ':' << check.line << " level " << check.level << " \""
         << check.message << '"';
}

} // namespace test
