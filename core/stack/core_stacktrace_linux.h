#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/stack/core_stacktrace.h"

namespace NS_CORE {

// The two halves of a trace, for the crash guard: its signal handler may walk, but must not look up names yet.

// The code address of one active call.
struct RawFrame {
    uintptr_t programCounter;
    // Whether it is a return address, so that the call stands before it. False for a frame that a signal interrupted.
    bool isReturnAddress;
};

// Writes the calling thread's frames to `frames`, innermost first, beginning with the caller of this function, and
// returns their count, at most `maxFrames`. After its first call in the process it allocates nothing and is
// async-signal-safe; in a signal handler it walks on from the handler's frames to the interrupted code's.
size_t walkRaw(RawFrame* frames, size_t maxFrames);

// Which modules' source files and lines are looked up. Quick leaves out those whose debug information is compressed, as
// the system's libraries have it: to decompress the C library's takes longer than the rest of a crash's report, and
// some megabytes.
enum class LineLookup { All, Quick };

// Appends the frames with their names, as StackTrace finds them. Thread-safe, and without the SymbolLock. Remembers
// every address for the life of the process, so that looking it up again is cheap.
void describeFrames(const RawFrame* frames, size_t count, std::vector<StackFrame>& described,
                    LineLookup lines = LineLookup::All);

} // namespace NS_CORE
