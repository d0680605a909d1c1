#include "core/report/core_failuredefault.h"

#include <atomic>
#include <cstdio>

#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_threadword.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kFailDefault = "CORE::Assert::failDefault";

constexpr AssertPolicy kPolicyAtStart{
    .isExcluded = [](std::string_view, int32_t) { return false; },
    .report = [](const Failure&) {},
    .stopsProcess = [] { return false; },
};

constinit std::atomic<const AssertPolicy*> g_policy{&kPolicyAtStart};

// 1 on a thread that is inside failDefault. Not thread_local, which allocates on Windows.
constinit ThreadWord g_insideFailDefault;

class InsideFailDefault {
public:
    InsideFailDefault() { g_insideFailDefault.set(1); }
    ~InsideFailDefault() { g_insideFailDefault.set(0); }
    InsideFailDefault(const InsideFailDefault&) = delete;
    InsideFailDefault& operator=(const InsideFailDefault&) = delete;
};

void logExcluded(const char* expression, std::string_view file, int32_t line, const std::string& message) {
    if (message.empty())
        MLOG(Crit, kFailDefault, "EXCLUDED_ASSERT failed at %s:%d (%s)", file, line, expression);
    else
        MLOG(Crit, kFailDefault, "EXCLUDED_ASSERT failed at %s:%d (%s) (%s)", file, line, expression, message);
}

} // namespace

void setAssertPolicy(const AssertPolicy* policy) {
    g_policy = policy != nullptr ? policy : &kPolicyAtStart;
}

void Assert::setFailureHandler() {
    if (!installFailureHandler(&failQuiet)) MLOG(Warn, "CORE::Assert::setFailureHandler", "handler locked");
}

bool Assert::failDefault(const char* expression, std::string_view file, int32_t line, int32_t level,
                         const std::string& message) {
    if (expression == nullptr) {
        MLOG(Crit, kFailDefault, "ERROR!! ASSERT failed at %s:%d", file, line);
        return false;
    }
    if (g_insideFailDefault.get() != 0) {
        std::fputs("Assert:failDefault - recursive call\n", stderr);
        return false;
    }
    const InsideFailDefault inside;
    const AssertPolicy& policy = *g_policy.load();
    if (policy.isExcluded(file, line)) {
        logExcluded(expression, file, line, message);
        return false;
    }
    MLOG(Crit, kFailDefault, "GASSERT failed at %s:%d (%s) (%s)", file, line, expression, message);
    policy.report({FailureKind::Assertion, expression, file, line, level, message});
    return policy.stopsProcess();
}

} // namespace NS_CORE
