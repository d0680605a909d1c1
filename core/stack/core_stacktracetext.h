#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace NS_CORE {

// The text side of stack traces: pure functions, the same on both platforms.

// One frame of a walk. A field that is unknown is empty, or 0.
struct StackFrame {
    std::string image;  // full path of the module that holds the code
    std::string pdb;    // full path of the file with the module's debug information
    std::string symbol; // the function's name and "()"
    std::string file;   // source file, as the debug information names it
    uint32_t line = 0;

    bool operator==(const StackFrame&) const = default;
};

// Returns the lines of a trace. The first `discarded` frames belong to the tracer and do not appear; if there are no
// others, the only line says so. Each line begins with "#" and the frame's number, counted from 1 after the discarded
// ones:
//
//     #01 in NS_UTL::Service::run() at utl_service.cpp:120 (quorkeri_service.exe)
//     #02 in ? (kernel32.dll)
//
// Of consecutive frames without a symbol only the first has a line. A "#NN in ?" marks the end of such a run; its
// number is the position of the run's last frame in the whole walk, discarded frames included.
// separator  separates directories in the file and image names, of which only the last part is shown.
std::vector<std::string> traceLines(const std::vector<StackFrame>& frames, size_t discarded, char separator);

// Returns the list of directories in which Windows' symbol library looks for symbols, each followed by ';': the working
// directory, the module's directory unless it is the same, its "symbols" subdirectory, the Windows directory and its
// "system32". An empty argument stands for a directory that is unknown, and is left out.
std::string symbolSearchPath(const std::string& currentDir, const std::string& moduleDir,
                             const std::string& systemRoot);

// Returns a module file's directory: everything before the last '\', '/' or ':', or the whole name if it has none.
std::string moduleDirectory(std::string_view moduleFile);

// Shortens a demangled name to the function's qualified name, without return type, parameters and qualifiers:
// "void ns::C<int>::f(char) const" becomes "ns::C<int>::f". A plain name stays as it is.
std::string functionName(std::string_view demangled);

// Turns a linker's name into a readable one. A name in the Itanium C++ ABI's mangling, with or without another leading
// underscore, becomes its functionName; any other stays as it is. A version after '@' is dropped.
std::string readableName(const std::string& linkerName);

} // namespace NS_CORE
