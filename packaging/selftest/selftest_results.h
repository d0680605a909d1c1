#pragma once

#include <string>
#include <string_view>
#include <vector>

// Reads what the test programs print, and writes the self-test's reports. Texts are UTF-8.
namespace selftest {

enum class Verdict { Passed, Failed, Skipped };

struct Result {
    std::string program; // without ".exe": "core_tests"
    std::string name;    // "Suite.Test"
    Verdict verdict = Verdict::Failed;
    double seconds = 0;
    std::string output; // of a failed test everything that it wrote, of a skipped one the reason
};

// The names in what `--gtest_list_tests` writes. Disabled tests are left out.
std::vector<std::string> testNames(std::string_view listed);

// What the end of one test's process means. A test that skips itself ends with 0 and says why.
Result resultOf(const std::string& program, const std::string& name, bool timedOut, unsigned long exitCode,
                const std::string& output);

// "N passed, N failed, N skipped".
std::string summaryOf(const std::vector<Result>& results);

// For people: the failed tests with their output, the skipped ones with their reasons, then the summary.
std::string textReport(const std::vector<Result>& results, const std::string& heading);

// For machines: JUnit's XML.
std::string junitReport(const std::vector<Result>& results);

} // namespace selftest
