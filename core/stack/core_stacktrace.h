#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace NS_CORE {

// The calling thread's stack as text: one line per frame with function, source place and image.
//
//     const std::string text = StackTrace().toText();
//
// Construct it, ask once, destroy it. Function names are readable ones; source places come where debug information is
// in the image or beside it. What cannot be found is left out step by step, down to "?" with the image's name, and
// told at NORM. Nothing throws but for memory.
//
// Only the calling thread is walked, and the object is destroyed on the thread that made it. One thread traces at a
// time (core_symbollock.h): the object has the turn as long as it lives, and a second thread's waits five seconds for
// it at most; then it is as if symbols could not be prepared. One object per thread at a time.
class StackTrace {
public:
    // One walked frame. What is unknown is empty, or 0.
    struct Frame {
        std::string image;  // full path of the module that holds the code
        std::string pdb;    // full path of the debug information's own file
        std::string symbol; // the function's name and "()"
        std::string file;   // source file, as the debug information names it
        uint32_t line = 0;

        bool operator==(const Frame&) const = default;
    };

    // Of getStack, logStack and toText: the longest walk, and the innermost frames that are the tracer itself.
    static constexpr size_t kMaxFrames = 63;
    static constexpr size_t kDiscardedFrames = 3;

    // The handle under which the system's symbol library knows a process. Only of use to loadModule.
    using ProcessHandle = void*;

    // Prepares symbols for this process. When that fails, which is logged at NORM, every walk fails.
    StackTrace();

    // The same under a handle of this process's own: GetCurrentProcess's on Windows, the process id on Linux. With
    // any other, preparing fails.
    explicit StackTrace(ProcessHandle process);

    ~StackTrace();
    StackTrace(const StackTrace&) = delete;
    StackTrace& operator=(const StackTrace&) = delete;

    // Makes all modules of the process known to the symbol library, once per object; tried again by the next walk
    // when the list of modules cannot be had. getStack calls it.
    void loadModules();

    // Makes one module known. False, and told at NORM, when the library refuses it.
    // image   the module's full path.     module  its short name.
    // base    where it is loaded.         size    in bytes.
    static bool loadModule(ProcessHandle process, const std::string& image, const std::string& module, uint64_t base,
                           uint32_t size);

    // Appends one frame per active call to `frames`, innermost first, beginning with this function itself, until
    // `frames` holds maxFrames. A walk that comes to nowhere ends there, with a WARN, and still counts as one.
    // False, with `frames` as it was and a location record at WARN, when there are no symbols.
    [[nodiscard]] bool getStack(std::vector<Frame>& frames, size_t maxFrames);

    // Logs the trace at `level`, a record per line (traceLines, core_stacktracetext.h).
    void logStack(uint32_t level);

    // The same lines as one text, without a newline at its end. Level-0 records that other threads write meanwhile get
    // into it (core_logcapture.h).
    std::string toText();

private:
    ProcessHandle m_process = nullptr; // null without symbols
    uint32_t m_processId = 0;          // 0 without symbols
    bool m_modulesLoaded = false;
};

} // namespace NS_CORE
