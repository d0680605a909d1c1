#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/stack/core_stacktracetext.h"
#include "core/stack/core_symbollock.h"

namespace NS_CORE {

// The calling thread's stack as text: one line per frame with function, source place and image.
//
//     const std::string text = StackTrace().toText();
//
// Construct it, ask once, destroy it. Function names are demangled; source places appear where debug information is in
// the image or beside it. What cannot be found is logged at NORM and left out of the line, down to "?" with the image's
// name. Throws nothing but std::bad_alloc.
//
// It walks the calling thread only, and must be destroyed on the thread that made it. It holds the symbol library's
// lock (core_symbollock.h) as long as it lives. Another thread's trace waits five seconds for that lock, and then
// behaves as if symbols could not be initialised. A thread may make a second one while its first one lives,
// because a log observer may take a trace when it receives a record of the first.
class StackTrace {
public:
    using Frame = StackFrame;

    // The longest walk of logStack and toText, and how many of its innermost frames they leave out: getStack, logStack
    // and toText.
    static constexpr size_t kMaxFrames = 63;
    static constexpr size_t kDiscardedFrames = 3;

    // The handle under which the system's symbol library knows a process.
    using ProcessHandle = void*;

    // Initialises symbols for this process. If that fails, which is logged at NORM, every walk fails.
    StackTrace();

    // The same with a given handle of this process: GetCurrentProcess's on Windows, the process id on Linux.
    // Initialising fails with any other.
    explicit StackTrace(ProcessHandle process);

    ~StackTrace();
    StackTrace(const StackTrace&) = delete;
    StackTrace& operator=(const StackTrace&) = delete;

    // Registers all modules of the process with the symbol library: on Windows once per object, on Linux those that
    // came and went since. If the list of modules cannot be read, the next walk tries again. getStack does the same.
    void loadModules();

    // Registers one module. Returns false, and logs at NORM, if the library refuses it.
    // image   the module's full path.     module  its short name.
    // base    where it is loaded.         size    in bytes.
    static bool loadModule(ProcessHandle process, const std::string& image, const std::string& module, uint64_t base,
                           uint32_t size);

    // Appends one frame per active call to `frames`, innermost first, beginning with this function itself, until
    // `frames` holds maxFrames. A frame that leads nowhere ends the walk with a WARN; the walk still succeeds.
    // Without symbols it logs a location record at WARN, leaves `frames` as they are, and returns false.
    [[nodiscard]] bool getStack(std::vector<Frame>& frames, size_t maxFrames);

    // Logs the trace at `level`, one record per line of traceLines. It leaves out kDiscardedFrames like toText, which
    // is not among the frames here; so the third one is the caller's own.
    void logStack(uint32_t level);

    // Returns the same lines as one text, without a newline at its end. It also contains the level-0 records that
    // others write meanwhile, another trace's among them (core_logcapture.h).
    std::string toText();

private:
    SymbolLock m_lock;
    ProcessHandle m_process = nullptr;             // null without symbols
    [[maybe_unused]] bool m_modulesLoaded = false; // on Windows
};

} // namespace NS_CORE
