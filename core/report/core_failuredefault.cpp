#include <atomic>
#include <cstdio>

#include "core/check/core_assert.h"
#include "core/check/core_assertpolicy.h"
#include "core/log/core_v2masterlogger.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kFunction = "CORE::Assert::failDefault";

constexpr AssertPolicy kPolicyAtStart{
    .isExcluded = [](std::string_view, int32_t) { return false; },
    .report = [](AssertPolicy::Kind, const char*, std::string_view, int32_t, int32_t, const std::string&) {},
    .stopsProcess = [] { return false; },
};

constinit std::atomic<const AssertPolicy*> g_policy{&kPolicyAtStart};

constinit thread_local bool g_insideFailDefault = false;

class InsideFailDefault {
public:
    InsideFailDefault() { g_insideFailDefault = true; }
    ~InsideFailDefault() { g_insideFailDefault = false; }
    InsideFailDefault(const InsideFailDefault&) = delete;
    InsideFailDefault& operator=(const InsideFailDefault&) = delete;
};

void logExcluded(const char* expression, std::string_view file, int32_t line, const std::string& message) {
    if (message.empty())
        MLOG(Crit, kFunction, "EXCLUDED_ASSERT failed at %s:%d (%s)", file, line, expression);
    else
        MLOG(Crit, kFunction, "EXCLUDED_ASSERT failed at %s:%d (%s) (%s)", file, line, expression, message);
}

// Past the C library's buffer, for it may be the last that the process says.
void printToStandardError(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace

void setAssertPolicy(const AssertPolicy* policy) {
    g_policy = policy != nullptr ? policy : &kPolicyAtStart;
}

void Assert::setFailureHandler(FailureHandler handler) {
    if (!replaceFailureHandler(handler)) MLOG(Warn, "CORE::Assert::setFailureHandler", "handler locked");
}

void Assert::setFailureHandler() {
    setFailureHandler(&failQuiet);
}

bool Assert::failDefault(const char* expression, std::string_view file, int32_t line, int32_t level,
                         const std::string& message) {
    if (expression == nullptr) {
        MLOG(Crit, kFunction, "ERROR!! ASSERT failed at %s:%d", file, line);
        return false;
    }
    if (g_insideFailDefault) {
        printToStandardError("Assert:failDefault - recursive call\n");
        return false;
    }
    const InsideFailDefault inside;
    const AssertPolicy& policy = *g_policy.load();
    if (policy.isExcluded(file, line)) {
        logExcluded(expression, file, line, message);
        return false;
    }
    MLOG(Crit, kFunction, "GASSERT failed at %s:%d (%s) (%s)", file, line, expression, message);
    policy.report(AssertPolicy::Kind::Failure, expression, file, line, level, message);
    return policy.stopsProcess();
}

bool Assert::failQuiet(const char* /*expression*/, std::string_view file, int32_t line, int32_t /*level*/,
                       const std::string& message) {
    printToStandardError(formatString("GASSERT failed at %s:%d (%s)\n", file, line, message));
    return false;
}

} // namespace NS_CORE
