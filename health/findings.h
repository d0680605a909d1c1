#pragma once

#include <string>
#include <vector>

#include "health/facts.h"

namespace health {

// In ascending order of importance. The program's result is that of its worst finding.
enum class Severity { Ok, Unknown, Warning, Critical };

// As monitoring expects it: 0 healthy, 1 warning, 2 critical, 3 unknown.
int exitCode(Severity severity);

// "OK", "UNKNOWN", "WARNING", "CRITICAL".
const char* severityText(Severity severity);

struct Finding {
    const char* name; // for programs; stays the same from version to version
    Severity severity = Severity::Ok;
    std::string text; // what was found: a sentence without its full stop
    std::string cure; // what to do, with the command
};

// Returns what is wrong, the worst first. A pure function of the facts.
std::vector<Finding> judge(const Facts& facts);

Severity worstOf(const std::vector<Finding>& findings);

// All possible findings, with words in capital letters in place of values.
std::vector<Finding> catalogue();

// The figures with their limits, as performance data of monitoring plug-ins: "restarts=0;0;19 ...".
std::string figures(const Facts& facts);

// Limits. This many restarts in an hour are critical, fewer are a warning. With fewer free megabytes than these the
// disk is nearly full (a warning), or full (critical).
inline constexpr uint32_t kManyRestarts = 20;
inline constexpr uint64_t kLowMegabytes = 500;
inline constexpr uint64_t kFullMegabytes = 50;

} // namespace health
