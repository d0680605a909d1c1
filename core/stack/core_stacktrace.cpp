#include "core/stack/core_stacktrace.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "core/log/core_logcapture.h"
#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_stacktrace_platform.h"
#include "core/stack/core_stacktracetext.h"
#include "core/text/core_pathseparator.h"
#include "core/text/core_varargs.h"

namespace NS_CORE {
namespace {

std::string_view lastPart(std::string_view path, char separator) {
    return path.substr(path.find_last_of(separator) + 1);
}

std::string unknownLine(size_t number) {
    return formatString("#%02d in ?", number);
}

std::string frameLine(size_t number, const StackTrace::Frame& frame, char separator) {
    std::string line = formatString("#%02d in %s", number, frame.symbol.empty() ? "?" : frame.symbol);
    if (!frame.file.empty()) formatInto(line, " at %s:%d", lastPart(frame.file, separator), frame.line);
    if (!frame.image.empty()) formatInto(line, " (%s)", lastPart(frame.image, separator));
    return line;
}

bool endsWithCut(std::string_view& text, std::string_view ending) {
    if (!text.ends_with(ending)) return false;
    text.remove_suffix(ending.size());
    return true;
}

// "f(int) const [clone .cold]" -> "f(int)"
std::string_view withoutQualifiers(std::string_view text) {
    while (text.ends_with(']')) {
        const size_t clone = text.rfind(" [clone ");
        if (clone == std::string_view::npos) break;
        text = text.substr(0, clone);
    }
    while (endsWithCut(text, " const") || endsWithCut(text, " volatile") || endsWithCut(text, " &&") ||
           endsWithCut(text, " &")) {
    }
    return text;
}

// "f(int (*)(char))" -> "f"
std::string_view withoutParameters(std::string_view text) {
    if (!text.ends_with(')')) return text;
    int depth = 0;
    for (size_t position = text.size(); position-- > 0;) {
        if (text[position] == ')') ++depth;
        if (text[position] == '(' && --depth == 0) return text.substr(0, position);
    }
    return text;
}

// "void f<int>" -> "f<int>". Behind "operator" everything belongs to the name, blanks and angles included.
std::string_view withoutReturnType(std::string_view text) {
    int depth = 0;
    size_t start = 0;
    for (size_t position = 0; position < text.size(); ++position) {
        const char character = text[position];
        if (depth == 0 && text.substr(position).starts_with("operator")) break;
        if (std::string_view("<({[").find(character) != std::string_view::npos) ++depth;
        if (std::string_view(">)}]").find(character) != std::string_view::npos) --depth;
        // A blank behind parentheses leads to the qualifiers of an enclosing function.
        if (character == ' ' && depth == 0 && position > 0 && text[position - 1] != ')') start = position + 1;
    }
    return text.substr(start);
}

} // namespace

std::vector<std::string> traceLines(const std::vector<StackTrace::Frame>& frames, size_t discarded, char separator) {
    if (frames.size() <= discarded) return {formatString("Stack with 0 frames (discarded %d)", discarded)};
    std::vector<std::string> lines;
    bool inUnknownRun = false;
    // The position counts from 1; so the one before is the index.
    for (size_t index = discarded; index < frames.size(); ++index) {
        const StackTrace::Frame& frame = frames[index];
        if (frame.symbol.empty()) {
            if (inUnknownRun) continue;
            inUnknownRun = true;
        } else if (inUnknownRun) {
            lines.push_back(unknownLine(index));
            inUnknownRun = false;
        }
        lines.push_back(frameLine(index + 1 - discarded, frame, separator));
    }
    if (inUnknownRun) lines.push_back(unknownLine(frames.size()));
    return lines;
}

std::string symbolSearchPath(const std::string& currentDir, const std::string& moduleDir,
                             const std::string& systemRoot) {
    std::string path;
    if (!currentDir.empty()) formatInto(path, "%s;", currentDir);
    if (!moduleDir.empty()) {
        if (moduleDir != currentDir) formatInto(path, "%s;", moduleDir);
        formatInto(path, "%s\\symbols;", moduleDir);
    }
    if (!systemRoot.empty()) formatInto(path, "%s;%s\\system32;", systemRoot, systemRoot);
    return path;
}

std::string moduleDirectory(std::string_view moduleFile) {
    return std::string(moduleFile.substr(0, moduleFile.find_last_of("\\/:")));
}

std::string functionName(std::string_view demangled) {
    std::string name(withoutReturnType(withoutParameters(withoutQualifiers(demangled))));
    // The library's versions of std::string are nobody's concern here.
    constexpr std::string_view kStringTag = "[abi:cxx11]";
    for (size_t at = name.find(kStringTag); at != std::string::npos; at = name.find(kStringTag))
        name.erase(at, kStringTag.size());
    return name;
}

std::string readableName(const std::string& linkerName) {
    // Shared libraries' names may carry a version, "name@VERSION".
    std::string name = linkerName.substr(0, linkerName.find('@'));
    const char* mangled = name.c_str();
    if (name.starts_with("__Z")) ++mangled;
    if (std::string_view(mangled).substr(0, 2) != "_Z") return name;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangled, /*output_buffer=*/nullptr, /*length=*/nullptr, &status), &std::free);
    return demangled ? functionName(demangled.get()) : name;
}

WalkStep walkStep(uint64_t programCounter, uint64_t returnAddress) {
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

// getStack, logStack and toText must each keep a frame of their own, for kDiscardedFrames counts them.

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
