#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// The ways in which a program can end badly, by name.
std::vector<std::string> crashKinds();

// Does it. Returns for an unknown name only.
void crash(const std::string& kind);

// What SelfProcess::wait() answers for a guarded program that crashed.
extern const int64_t kCrashExitCode;

// Keeps the platform from starting a debugger for faults that nothing handles.
void endQuietlyOnUnhandledFaults();

// Whether the answer of SelfProcess::wait() is that of such a fault.
bool isEndByUnhandledFault(int64_t exitCode);

// For a child whose report of a fault is given up half-way: what that had allocated is no leak to tell of.
void leaveMemoryBehind();

// Those that only this platform has.
std::vector<std::string> platformCrashKinds();
void platformCrash(const std::string& kind);

} // namespace test
