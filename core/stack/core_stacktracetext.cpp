#include "core/stack/core_stacktracetext.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "core/text/core_varargs.h"

namespace NS_CORE {
namespace {

std::string_view lastPart(std::string_view path, char separator) {
    return path.substr(path.find_last_of(separator) + 1);
}

std::string endOfRun(size_t position) {
    return formatString("#%02d in ?", position);
}

std::string frameLine(size_t number, const StackFrame& frame, char separator) {
    std::string line = formatString("#%02d in %s", number, frame.symbol.empty() ? "?" : frame.symbol);
    if (!frame.file.empty()) formatInto(line, " at %s:%d", lastPart(frame.file, separator), frame.line);
    if (!frame.image.empty()) formatInto(line, " (%s)", lastPart(frame.image, separator));
    return line;
}

} // namespace

std::vector<std::string> traceLines(const std::vector<StackFrame>& frames, size_t discarded, char separator) {
    if (frames.size() <= discarded) return {formatString("Stack with 0 frames (discarded %d)", discarded)};
    std::vector<std::string> lines;
    bool inUnknownRun = false;
    // Positions count from 1, so an index is the position of the frame before.
    for (size_t index = discarded; index < frames.size(); ++index) {
        const StackFrame& frame = frames[index];
        if (frame.symbol.empty()) {
            if (inUnknownRun) continue;
            inUnknownRun = true;
        } else if (inUnknownRun) {
            lines.push_back(endOfRun(index));
            inUnknownRun = false;
        }
        lines.push_back(frameLine(index + 1 - discarded, frame, separator));
    }
    if (inUnknownRun) lines.push_back(endOfRun(frames.size()));
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
    constexpr std::string_view kOperator = "operator";
    int depth = 0;    // of brackets of every kind
    size_t start = 0; // of the name, after its return type
    size_t parameters = std::string_view::npos;
    for (size_t at = 0; at < demangled.size(); ++at) {
        const char character = demangled[at];
        if (depth == 0 && demangled.substr(at).starts_with(kOperator)) {
            // An operator's name may have blanks, and ends where its parameters begin. Those of "operator()" are found
            // after its own brackets.
            at = demangled.find('(', at);
            if (at == std::string_view::npos) break;
            parameters = at;
            ++depth;
        } else if (std::string_view("<({[").find(character) != std::string_view::npos) {
            if (depth++ == 0 && character == '(') parameters = at;
        } else if (std::string_view(">)}]").find(character) != std::string_view::npos) {
            --depth;
        } else if (depth == 0 && character == ' ' && parameters == std::string_view::npos) {
            start = at + 1;
        } else if (depth == 0 && demangled.substr(at).starts_with("::")) {
            // The brackets before it were part of a scope: "(anonymous namespace)::f", "f(int)::{lambda()#1}::…".
            parameters = std::string_view::npos;
        }
    }
    std::string name(demangled.substr(0, parameters).substr(start));
    // The tag of the library's newer std::string says nothing about the caller.
    constexpr std::string_view kStringTag = "[abi:cxx11]";
    for (size_t at = name.find(kStringTag); at != std::string::npos; at = name.find(kStringTag))
        name.erase(at, kStringTag.size());
    return name;
}

std::string readableName(const std::string& linkerName) {
    // Names in shared libraries may carry a version, "name@VERSION".
    std::string name = linkerName.substr(0, linkerName.find('@'));
    const char* mangled = name.c_str();
    if (name.starts_with("__Z")) ++mangled;
    if (std::string_view(mangled).substr(0, 2) != "_Z") return name;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangled, /*output_buffer=*/nullptr, /*length=*/nullptr, &status), &std::free);
    return demangled ? functionName(demangled.get()) : name;
}

} // namespace NS_CORE
