#include "core/stack/core_stacktrace.h"

#include "core/log/core_logcapture.h"
#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_stacktrace_platform.h"
#include "core/text/core_pathseparator.h"

namespace NS_CORE {

stacktrace_platform::WalkStep stacktrace_platform::walkStep(uint64_t programCounter, uint64_t returnAddress) {
    if (programCounter == returnAddress) {
        MLOG(Warn, "NS_CORE::StackTrace::getStack", "endless callstack");
        return WalkStep::Stop;
    }
    if (programCounter == 0) {
        MLOG(Warn, "NS_CORE::StackTrace::getStack", "offset==0");
        return WalkStep::Stop;
    }
    return returnAddress == 0 ? WalkStep::TakeAndStop : WalkStep::TakeAndGoOn;
}

StackTrace::StackTrace() : StackTrace(stacktrace_platform::processHandle()) {}

// getStack, logStack and toText must each keep a frame of their own, because kDiscardedFrames counts them.

[[gnu::noinline]] void StackTrace::logStack(uint32_t level) {
    std::vector<Frame> frames;
    if (!getStack(frames, kMaxFrames)) {
        MasterLogger::logText(level, "Failed to get stack");
        return;
    }
    if (!MasterLogger::isOn(level)) return;
    for (const std::string& line : traceLines(frames, kDiscardedFrames, kPathSeparator))
        MasterLogger::logText(level, line);
}

[[gnu::noinline]] std::string StackTrace::toText() {
    const LogCapture capture;
    logStack(LogLevel::Log2String);
    return capture.text();
}

} // namespace NS_CORE
