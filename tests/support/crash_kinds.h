#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// The ways in which a program can end badly, by name.
std::vector<std::string> crashKinds();

// Ends the process in this way. Returns only for an unknown name.
void crash(const std::string& kind);

// What SelfProcess::wait() returns for a guarded program that crashed.
extern const int64_t kCrashExitCode;

// Keeps the platform from starting a debugger for faults that nothing handles.
void endQuietlyOnUnhandledFaults();

// Whether SelfProcess::wait() returns this code after such a fault.
bool isEndByUnhandledFault(int64_t exitCode);

// For a child whose report of a fault is abandoned half-way: the leak checker must not report what it allocated.
void leaveMemoryBehind();

// The ways to crash that only this platform has.
std::vector<std::string> platformCrashKinds();
void platformCrash(const std::string& kind);

} // namespace test
