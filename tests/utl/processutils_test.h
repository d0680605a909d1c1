#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "utl/utl_processutils.h"

namespace NS_UTL {

// What ProcessUtils::start returns, and the exit code that it stores or leaves untouched.
using Started = std::pair<ProcessUtils::Result, unsigned long>;
inline constexpr unsigned long kUntouched = 4711;

inline Started started(const std::string& commandLine) {
    unsigned long exitCode = kUntouched;
    const ProcessUtils::Result result = ProcessUtils::start(commandLine.c_str(), &exitCode);
    return {result, exitCode};
}

inline const Started kFinished = {ProcessUtils::Result::Finished, 0};
inline const Started kStartFailed = {ProcessUtils::Result::StartFailed, kUntouched};

inline std::vector<std::string> linesOf(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

} // namespace NS_UTL
