#pragma once

#include <string>
#include <vector>

#include "health/facts.h"

namespace health {

// In the order of their weight: the program's word is its worst finding's.
enum class Severity { Ok, Unknown, Warning, Critical };

// As monitoring expects it: 0 healthy, 1 warning, 2 critical, 3 unknown.
int exitCode(Severity severity);

// "OK", "UNKNOWN", "WARNING", "CRITICAL".
const char* severityText(Severity severity);

struct Finding {
    const char* name; // for programs; stays the same from version to version
    Severity severity = Severity::Ok;
    std::string text; // what is so: a sentence without its full stop
    std::string cure; // what to do, with the command
};

// What is wrong, the worst first. The facts alone decide.
std::vector<Finding> judge(const Facts& facts);

Severity worstOf(const std::vector<Finding>& findings);

// Every finding that there can be, with words in capital letters where a finding has values.
std::vector<Finding> catalogue();

// The figures with their limits, as the perf data of monitoring: "restarts=0;0;19 ...".
std::string figures(const Facts& facts);

// Which restarts in an hour are a warning and which are critical, and megabytes that are too few.
inline constexpr uint32_t kManyRestarts = 20;
inline constexpr uint64_t kLowMegabytes = 500;
inline constexpr uint64_t kFullMegabytes = 50;

uint64_t megabytes(uint64_t bytes);

} // namespace health
