#pragma once

#include "core/stack/core_stacktrace.h"

// What core_stacktrace.cpp asks of the platform. For that unit and its tests.
namespace NS_CORE::stacktrace_platform {

// The handle of this process.
StackTrace::ProcessHandle processHandle();

} // namespace NS_CORE::stacktrace_platform
