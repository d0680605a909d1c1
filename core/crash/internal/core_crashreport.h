#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/crash/internal/core_fixedtext.h"

namespace NS_CORE {

// The names and texts of a crash report. Catching the fault and writing the dump is the crash guard's own work.

// Whether one of argv[1] and on is exactly "jitd".
bool isGuardSwitchedOff(int argc, char** argv);

// How long the report of a fault may go without progress before it is abandoned. Progress is a byte of the dump or a
// finished step of the report. While the system's writer works on Windows, a change of the process's memory counts as
// well, so that a busy machine loses no dump. On Windows the whole report may take ten times as long at most. Linux
// rounds up to whole seconds. Tests shorten it.
inline constinit std::atomic<uint32_t> g_crashPatienceMs{30'000};

struct CrashNames {
    const char* version = ""; // tag and build id
    FixedText name;           // the program's
    FixedText dumpsDirectory; // with the platform's separators
    FixedText dumpFile;       // the same for all crashes of a build: the next one overwrites it
    FixedText historyFile;    // one line for each crash
};

// Returns the program's name: the executable's without directory and ".exe"; "unknown" for an empty one.
std::string programName(std::string_view executable, char separator);

// Returns the names for this version and program. Allocates nothing, takes no lock, fails no check.
// dumpsPath, logsPath  as getPath returns them.
// separator            the platform's, '\' or '/'.
CrashNames crashNames(const char* version, std::string_view program, std::string_view dumpsPath,
                      std::string_view logsPath, char separator);

// The names for this process, with the application's paths as they are now. May be called in a signal handler after a
// first call elsewhere. `program` is programName of the running executable, which can only be found out before a fault.
CrashNames crashNames(std::string_view program);

// Returns programName of the running executable.
std::string runningProgramName();

// Logs at CRIT what became of the dump. error: why it could not be written, in the system's words.
void logDump(const CrashNames& names, const std::optional<std::string>& error);

// Appends "TIME: NAME VERSION" with the local time to the history. Silent if the file cannot be opened.
void appendToHistory(const CrashNames& names);

// Returns "Invalid parameter detected (exp=%s) (func=%s) (file=%s:%d)". A null text reads "(null)".
std::string invalidParameterText(const char* expression, const char* function, const char* file, unsigned int line);

} // namespace NS_CORE
