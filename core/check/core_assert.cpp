#include "core/check/core_assert.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace NS_CORE {
namespace {

// Constant-initialised: static initialisers of other units may already fail checks.
constinit std::atomic<Assert::FailureHandler> g_handler{&Assert::failDefault};
constinit std::atomic<bool> g_handlerLocked{false};
constinit std::atomic<int32_t> g_level{1};

} // namespace

Assert::FailureHandler Assert::failureHandler() {
    return g_handler.load();
}

bool Assert::installFailureHandler(FailureHandler handler) {
    if (g_handlerLocked.load()) return false;
    g_handler.store(handler);
    return true;
}

void Assert::lockFailureHandler(bool locked) {
    g_handlerLocked.store(locked);
}

int32_t Assert::level() {
    return g_level.load(std::memory_order_relaxed);
}

void Assert::setLevel(int32_t level) {
    g_level.store(std::clamp(level, 0, 1));
}

bool Assert::fail(const char* expression, Place place, int32_t level, const std::string& message) {
    const FailureHandler handler = g_handler.load();
    if (handler != nullptr && handler(expression, place.unit, place.line, level, message)) stopProcess();
    return false;
}

bool Assert::failQuiet(const char* /*expression*/, std::string_view file, int32_t line, int32_t /*level*/,
                       const std::string& message) {
    const std::string text =
        "GASSERT failed at " + std::string(file) + ':' + std::to_string(line) + " (" + message + ")\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
    return false;
}

__attribute__((no_sanitize("undefined"))) void Assert::stopProcess() {
    // The pointer is volatile itself, so that the compiler cannot know that it is null and turn the store
    // into something else than an access to address 0.
    int* volatile nowhere = nullptr;
    *const_cast<volatile int*>(nowhere) = 0;
    std::exit(0);
}

} // namespace NS_CORE
