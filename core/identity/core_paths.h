#pragma once

#include <cstdint>
#include <string>

namespace NS_CORE {

// The application's directories. The numbers are fixed: callers elsewhere pass them as numbers.
enum class PathKind : uint32_t {
    Assets = 0,
    Settings = 1,
    Work = 2,
    Temp = 3,
    Logs = 4,
    Dumps = 5,
};

// One process-wide table says where each of them is. Paths are UTF-8, relative to the working directory (which the
// service host moves to the installation), with '/' between and no '/' at the end.
//
// The table is there from its first use, static initialisers included, until the process has ended. It is set once,
// at start-up, on the first thread; from then on any thread may read it, without a lock.

// Stores the path and marks the entry as set. Throws std::out_of_range for a value that is no kind.
void setPath(PathKind kind, std::string path);

// The stored path. Reading one that was never set fails the assertion "pi.is_set" with the kind's name, and gives the
// empty path where the process goes on. Throws std::out_of_range for a value that is no kind. The reference holds
// until the entry is set again.
const std::string& getPath(PathKind kind);

// Whether the kind's path was ever set. Throws std::out_of_range for a value that is no kind.
bool isPathSet(PathKind kind);

// The path as the system's calls take it, "./work/logs" for Logs. Fails as getPath does.
std::string dotPath(PathKind kind);

// The kind's own name, such as "Logs". "?", after a failed check, for a value that is no kind.
const char* pathName(PathKind kind);

// Sets all six to their defaults ("assets", "settings", "work", "work/tmp", "work/logs", "work/dumps"). The
// application's entry calls it before anything reads a path.
void setDefaultPaths();

} // namespace NS_CORE
