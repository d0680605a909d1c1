#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/stack/core_stacktrace.h"

namespace NS_CORE {

// The two halves of a trace apart, for a fault's handler, which may walk but must not look up names yet.

// One active call's address in the code.
struct RawFrame {
    uintptr_t programCounter;
    // Whether the address is the one to come back to, so that the call itself stands before it. A frame that a signal
    // interrupted stands at the address itself.
    bool isReturnAddress;
};

// Writes the calling thread's frames to `frames`, innermost first, from the caller of this function on, and answers
// their count, at most `maxFrames`. Allocates nothing once it has run once in the process; may be called in a signal
// handler then, and passes from the handler's frames to the interrupted code's.
size_t walkRaw(RawFrame* frames, size_t maxFrames);

// The frame with its names, as StackTrace gives it. Thread-safe. What was found out is kept for the life of the
// process, so that asking again costs next to nothing.
StackTrace::Frame describeFrame(const RawFrame& frame);

} // namespace NS_CORE
