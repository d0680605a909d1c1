#pragma once

#include "core/check/core_assert.h"
#include "core/text/core_varargs.h"

// CHECKF(condition, format, args...): an internal consistency check that is always active. When the condition is
// false, CHECKF builds the message from the format (core_varargs.h) and calls the hook (core_assert.h) with the
// expression "CHECKF" and level 0; the process ends there if the hook says so. The value is the condition's, so that
// the caller can handle the failure:
//
//     if (!CHECKF(isOpen(), "")) return -1;
//
// CHECKF_AT is the same with a published place, which does not move when the file is edited.
#define CHECKF_AT(unit, line, condition, ...) \
    ((condition) ||                           \
     ::NS_CORE::Assert::fail("CHECKF", ::NS_CORE::Place{unit, line}, 0, ::NS_CORE::formatString(__VA_ARGS__)))
#define CHECKF(condition, ...) \
    ((condition) || ::NS_CORE::Assert::fail("CHECKF", ::NS_CORE::here(), 0, ::NS_CORE::formatString(__VA_ARGS__)))
