#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/supervised_service.h"

namespace test {

// The result of the health check: its exit code, all that it printed, and the names of its findings, sorted.
struct Health {
    int64_t code = -1;
    std::string text;
    std::vector<std::string> findings;

    bool has(const std::string& finding) const { return std::ranges::count(findings, finding) != 0; }
    bool says(const std::string& words) const { return text.find(words) != std::string::npos; }
};

using Names = std::vector<std::string>;

// Puts the health check into a directory and returns its path there.
std::filesystem::path addHealth(const std::filesystem::path& directory);

// Runs it there.
Health ask(const Installation& installation, const std::vector<std::string>& words = {});

// A service that is registered (on Linux: can be started), with its libraries beside it, and the health check.
class HealthTest : public testing::Test {
protected:
    HealthTest();

    void startWithCompanion(const std::string& companionSettings = "");

    // Waits until the wall clock shows a later second, with a margin for the ticks of the system's clock.
    static void awaitLaterSecond();

    Health ask(const std::vector<std::string>& words = {}) const { return test::ask(m_installation, words); }

    Installation m_installation{"Keri Wrapper Ж"};
    SupervisedService m_service{m_installation};
};

// How the check names a service that has died, and one that does not run: without a manager these are the same.
extern const std::string kDead;

// Brings the running service down by a fault of its own, with a dump.
void crash(SupervisedService& service, const Installation& installation);

} // namespace test
