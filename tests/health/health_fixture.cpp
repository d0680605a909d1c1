#include "tests/health/health_fixture.h"

#include <algorithm>
#include <ctime>

#include "tests/system/await.h"

namespace test {
namespace {} // namespace

std::filesystem::path addHealth(const std::filesystem::path& directory) {
    const std::filesystem::path program = directory / std::filesystem::path(HEALTH_PROGRAM).filename();
    writeFile(program, readFile(builtFile(HEALTH_PROGRAM)));
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    return program;
}

Health ask(const Installation& installation, const std::vector<std::string>& words) {
    const std::filesystem::path output = installation.root() / "health.txt";
    Health health;
    std::filesystem::remove(output);
    {
        Process process(installation.bin() / std::filesystem::path(HEALTH_PROGRAM).filename(), words, output);
        health.code = process.awaitExit().value_or(-1);
    }
    health.text = readFile(output);
    // "[name] sentence"
    for (size_t at = 0; (at = health.text.find(" [", at)) != std::string::npos; ++at)
        health.findings.push_back(health.text.substr(at + 2, health.text.find(']', at) - at - 2));
    std::ranges::sort(health.findings);
    return health;
}

HealthTest::HealthTest() {
    addHealth(m_installation.bin());
    for (const std::string& name : kLibraries)
        writeFile(m_installation.bin() / name, readFile(m_installation.keri() / name));
}

void HealthTest::startWithCompanion(const std::string& companionSettings) {
    m_installation.setCompanion(companionSettings);
    m_service.start();
    m_installation.awaitRecord("ready");
}

void HealthTest::awaitLaterSecond() {
    const std::time_t now = std::time(nullptr);
    ASSERT_TRUE(await([now] { return std::time(nullptr) > now + 1; }));
}

} // namespace test
