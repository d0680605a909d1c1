#include "core/crash/internal/core_crashreport.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "core/files/core_dir.h"
#include "core/files/core_wrapper.h"
#include "core/identity/core_paths.h"
#include "core/identity/core_rcsname.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_pathseparator.h"
#include "core/text/core_varargs.h"
#include "core/time/core_time.h"

namespace NS_CORE {
namespace {

std::string timeStamp() {
    const std::tm now = localTimeOf(systemNow().seconds);
    std::array<char, 30> text;
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &now)};
}

} // namespace

bool isGuardSwitchedOff(int argc, char** argv) {
    return std::any_of(argv + std::min(argc, 1), argv + argc,
                       [](const char* word) { return std::string_view(word) == "jitd"; });
}

std::string programName(std::string_view executable, char separator) {
    std::string_view name = executable.substr(executable.find_last_of(separator) + 1);
    if (name.empty()) return "unknown";
    constexpr std::string_view kExtension = ".exe";
    if (name.ends_with(kExtension)) name.remove_suffix(kExtension.size());
    return std::string(name);
}

CrashNames crashNames(const char* version, std::string_view program, std::string_view dumpsPath,
                      std::string_view logsPath, char separator) {
    CrashNames names;
    names.version = version;
    names.name << program;
    names.dumpsDirectory << "./" << dumpsPath;
    names.dumpsDirectory.replace('/', separator);
    names.dumpFile << names.dumpsDirectory.view() << std::string_view(&separator, 1) << program << "-" << version
                   << ".dmp";
    names.historyFile << "./" << logsPath << "/dumps.log";
    return names;
}

CrashNames crashNames(std::string_view program) {
    const auto path = [](PathKind kind) { return isPathSet(kind) ? std::string_view(getPath(kind)) : ""; };
    return crashNames(versionWithBuildId(), program, path(PathKind::Dumps), path(PathKind::Logs), kPathSeparator);
}

std::string runningProgramName() {
    std::string executable;
    if (!Dir::getModuleFilename(executable)) executable.clear();
    return programName(executable, kPathSeparator);
}

void logDump(const CrashNames& names, const std::optional<std::string>& error) {
    if (!MasterLogger::isOn(LogLevel::Crit)) return;
    MasterLogger::logText(LogLevel::Crit,
                          error ? formatString("Failed to write minidump for '%s' to '%s', version '%s' (%s)",
                                               names.name.view(), names.dumpFile.view(), names.version, *error)
                                : formatString("Wrote minidump for '%s' to '%s', version '%s'", names.name.view(),
                                               names.dumpFile.view(), names.version));
}

void appendToHistory(const CrashNames& names) {
    const ScopedStream history(Wrapper::fopen(names.historyFile.c_str(), "a"));
    if (!history) return;
    const std::string line = formatString("%s: %s %s\n", timeStamp(), names.name.view(), names.version);
    std::fwrite(line.data(), 1, line.size(), history.get());
}

std::string invalidParameterText(const char* expression, const char* function, const char* file, unsigned int line) {
    return formatString("Invalid parameter detected (exp=%s) (func=%s) (file=%s:%d)", expression, function, file, line);
}

} // namespace NS_CORE
