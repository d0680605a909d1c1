#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace NS_CORE {

// What the crash guard writes, apart from catching faults and writing the dump itself.

// Whether one of argv[1] and on is exactly "jitd".
bool isGuardSwitchedOff(int argc, char** argv);

// How long the report of a fault may take before the process is ended as if it had been made: on Windows all of it,
// on Linux each of its parts, of which the next is then still tried. Tests shorten it.
inline constinit std::atomic<uint32_t> g_crashPatienceMs{20'000};

struct CrashNames {
    std::string version;        // tag and build id
    std::string name;           // the executable's, without directory and ".exe"
    std::string dumpsDirectory; // with the platform's separators
    std::string dumpFile;       // the same for all crashes of a build; the next one overwrites it
    std::string historyFile;    // keeps one line for each

    bool operator==(const CrashNames&) const = default;
};

// executable  the running executable's path; empty when unknown, which the name then says.
// dumpsPath, logsPath  as dotPath gives them.
// separator   the platform's, '\' or '/'.
CrashNames crashNames(std::string_view version, std::string_view executable, std::string_view dumpsPath,
                      std::string_view logsPath, char separator);

// Those of this process, from the application's paths. Logs what its sources log.
CrashNames crashNames();

// Logs at CRIT what became of the dump. error: why it could not be written, in the system's words.
void logDump(const CrashNames& names, const std::optional<std::string>& error);

// Adds "TIME: NAME VERSION" with the local time to the history. Silent when the file does not open.
void appendToHistory(const CrashNames& names);

// "Invalid parameter detected (exp=%s) (func=%s) (file=%s:%d)". Each text may be null, and then reads "(null)".
std::string invalidParameterText(const char* expression, const char* function, const char* file, unsigned int line);

} // namespace NS_CORE
