#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/check/core_assert.h"

namespace NS_CORE {

// What happens to a failed check unless a program installs a hook of its own: Assert::failDefault (core_assert.h).
// The handler works in this order:
//
//  1. A failure without an expression is logged at CRIT as "ERROR!! ASSERT failed at %s:%d"; nothing else happens.
//  2. A check that fails inside the handler, on the same thread, writes "Assert:failDefault - recursive call\n" to
//     standard error; nothing else happens.
//  3. An excluded place is logged at CRIT as EXCLUDED_ASSERT; nothing else happens.
//  4. Any other failure is logged at CRIT, then reported. Only here may the result be true, which stops the
//     process.

enum class FailureKind : uint32_t { Assertion = 0, Alert = 1 };

// One failure. Borrowed texts: valid for the call that hands them over.
struct Failure {
    FailureKind kind;
    std::string_view condition;
    std::string_view file;
    int32_t line;
    int32_t level;
    std::string_view message;
};

// Decides about failed checks for the default handler. Until a program installs one, no place is excluded, reports go
// nowhere and no failure stops the process.
//
// The handler calls these functions on the thread whose check failed, on several threads at once. A check that fails
// inside them is not handled again (2.). They must not throw.
struct AssertPolicy {
    // Whether an administrator has excluded the place.
    bool (*isExcluded)(std::string_view file, int32_t line);

    // Called for failures of kind Assertion whose place is not excluded.
    void (*report)(const Failure& failure);

    // Whether such a failure stops the process. Called after the report.
    bool (*stopsProcess)();
};

// Installs a policy, whose three functions must all be set. It is borrowed and must stay valid until the process ends.
// Null installs the initial one again. Any thread may call this, from static initialisers on.
void setAssertPolicy(const AssertPolicy* policy);

} // namespace NS_CORE
