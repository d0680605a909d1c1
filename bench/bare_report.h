#pragma once

#include <cstddef>

namespace bench {

// From now on each fault of this thread is reported by what a program would use instead of the crash guard: a dump, a
// committed line in the log and one in the history. Then ended() is called, which must not return.
// way  which of them; see the platform's file.
void reportFaultsBarely(const char* way, void (*ended)());

inline constexpr char kBareDump[] = "./work/dumps/bare.dmp";
inline constexpr char kBareLog[] = "./work/logs/service.log";
inline constexpr char kBareHistory[] = "./work/logs/dumps.log";

} // namespace bench
