#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/stack/core_stacktrace.h"

namespace NS_CORE {

// What stack traces say and where they look, apart from walking: pure functions, the same on both platforms.

// The lines of a trace. The first `discarded` frames are the tracer's own and do not appear; with no frame beyond them
// the only line says so. Others begin with "#" and the frame's number, counted from 1 behind the discarded ones:
//
//     #01 in NS_UTL::Service::run() at utl_service.cpp:120 (quorkeri_service.exe)
//     #02 in ? (kernel32.dll)
//
// Of consecutive frames without a symbol only the first has a line of its own; the run's end is marked by a "#NN in ?"
// that bears the position of its last frame counted from the walk's start, discarded frames included.
// separator  what parts directories in the frames' file and image names, of which only the last part is shown.
std::vector<std::string> traceLines(const std::vector<StackTrace::Frame>& frames, size_t discarded, char separator);

// Where Windows' symbol library looks for symbols: a list whose every element, the last included, ends with ';'.
// The working directory comes first, then the module's directory unless it is the same, its "symbols" below it, the
// Windows directory and its "system32". An empty argument is one that could not be had, and is left out.
std::string symbolSearchPath(const std::string& currentDir, const std::string& moduleDir,
                             const std::string& systemRoot);

// A module file's directory: all before the last '\', '/' or ':'; the whole name when it has none.
std::string moduleDirectory(std::string_view moduleFile);

// "ns::C<int>::f" from "void ns::C<int>::f(char) const": a demangled name without return type, parameters and
// qualifiers. A plain name stays as it is.
std::string functionName(std::string_view demangled);

// A readable name for a linker's one: demangled where it is mangled the way of the Itanium C++ ABI, with or without
// another underscore before it, and shortened to functionName; any other as it is. A version behind '@' is left out.
std::string readableName(const std::string& linkerName);

// What the walk does with a frame.
enum class WalkStep { Stop, TakeAndStop, TakeAndGoOn };

// Decides from the frame's program counter and its return address. A frame that returns to itself, and one at address
// 0, are not taken, and told at WARN.
WalkStep walkStep(uint64_t programCounter, uint64_t returnAddress);

} // namespace NS_CORE
