#pragma once

#include <cstdint>
#include <map>
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

// What SelfProcess::wait() returns when an access to address 0 ended a program that called the function above.
extern const int64_t kUnhandledFaultExitCode;

// For a child whose report of a fault is abandoned half-way: the leak checker must not report what it allocated.
void leaveMemoryBehind();

// By name: the ways to crash that only this platform has.
std::map<std::string, void (*)()> platformCrashKinds();

} // namespace test
