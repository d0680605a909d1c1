// Any names and any frames: what a trace shows of them is never longer, and each line is one of its two forms.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/stack/core_stacktracetext.h"
#include "fuzz/require.h"

namespace {

void checkNames(const std::string& name) {
    require(NS_CORE::functionName(name).size() <= name.size(), "a longer function name");
    // Demangling may make a name longer; what is not mangled stays.
    const std::string readable = NS_CORE::readableName(name);
    if (name.find("_Z") == std::string::npos) require(name.starts_with(readable), "another name");
    require(name.starts_with(NS_CORE::moduleDirectory(name)), "another directory");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::vector<NS_CORE::StackFrame> frames(input.ConsumeIntegralInRange<size_t>(0, 8));
    const auto discarded = input.ConsumeIntegralInRange<size_t>(0, 4);
    for (NS_CORE::StackFrame& frame : frames) {
        frame.image = input.ConsumeRandomLengthString(20);
        frame.symbol = input.ConsumeRandomLengthString(20);
        frame.file = input.ConsumeRandomLengthString(20);
        frame.line = input.ConsumeIntegral<uint32_t>();
    }
    const std::vector<std::string> lines = NS_CORE::traceLines(frames, discarded, '/');
    require(!lines.empty(), "no line");
    require(lines.size() <= 2 * frames.size() + 1, "more lines than frames");
    if (frames.size() > discarded)
        for (const std::string& line : lines) require(line.starts_with('#'), "a line without a number");
    const std::string name = input.ConsumeRemainingBytesAsString();
    checkNames(name);
    checkNames("_Z" + name);
    require(NS_CORE::symbolSearchPath(name, name, "").size() <= 3 * name.size() + 20, "a longer search path");
    return 0;
}
