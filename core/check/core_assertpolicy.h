#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace NS_CORE {

// What the default failure handler (core_assert.h) asks and tells whoever looks after failed checks. Until one is
// installed no place is excluded, reports go nowhere and no failure stops the process.
//
// The functions are called on the thread whose check failed, on several threads at once; a check that fails inside
// them is cut off. They must not throw.
struct AssertPolicy {
    enum class Kind : uint32_t { Failure = 0 };

    // Whether an administrator has taken the place out: it is logged as excluded, not reported, and does not stop.
    bool (*isExcluded)(std::string_view file, int32_t line);

    void (*report)(Kind kind, const char* expression, std::string_view file, int32_t line, int32_t level,
                   const std::string& message);

    // Whether a failure that is not excluded stops the process. Asked after the report.
    bool (*stopsProcess)();
};

// Borrowed for the rest of the process's life; all three functions are set. Null goes back to the one at start.
// Constant-initialised: may be called from static initialisers. Any thread.
void setAssertPolicy(const AssertPolicy* policy);

} // namespace NS_CORE
