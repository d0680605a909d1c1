#pragma once

#include "core/stack/core_stacktrace.h"

// What the sources of core_stacktrace share, and what each platform supplies. For that unit and its tests.
namespace NS_CORE::stacktrace_platform {

// The handle of this process.
StackTrace::ProcessHandle processHandle();

// What a walk does with a frame.
enum class WalkStep { Stop, TakeAndStop, TakeAndGoOn };

// Decides from the frame's program counter and its return address. A frame that returns to itself, and one at address
// 0, ends the walk with a WARN and is not taken.
WalkStep walkStep(uint64_t programCounter, uint64_t returnAddress);

} // namespace NS_CORE::stacktrace_platform
