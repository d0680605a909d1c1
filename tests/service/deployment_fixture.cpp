#include "tests/service/deployment_fixture.h"

#include <algorithm>
#include <fstream>
#include <random>

#include "tests/support/child.h"

DeploymentTest::DeploymentTest() {
    std::filesystem::create_directory(m_bin);
    std::filesystem::create_directory(m_keri);
    test::linkThisProgram(m_program);
}

std::string DeploymentTest::join(const std::string& directory, const std::string& name) {
    return directory + static_cast<char>(std::filesystem::path::preferred_separator) + name;
}

std::vector<std::string> DeploymentTest::deploy(const std::vector<std::string>& how) {
    EXPECT_EQ(test::runAndWait(test::childCommandLineOf(m_program, "deploy", how)), 0);
    std::ifstream log(m_dir.path() / "log.txt", std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    return lines;
}

void DeploymentTest::registerDirectory(const std::string& directory) {
    m_location.set(/*type=*/1, directory + '\0');
}

void DeploymentTest::makeLibraries(size_t size) {
    std::minstd_rand random(20191120);
    for (const char* name : kLibraries) {
        // A prime period, so that no block of the copy is like another.
        std::string pattern(65521, '\0');
        std::ranges::generate(pattern, [&] { return static_cast<char>(random() >> 8); });
        std::string bytes;
        while (bytes.size() < size) bytes.append(pattern, 0, size - bytes.size());
        test::writeFile(inKeri(name), bytes);
    }
}

testing::AssertionResult DeploymentTest::isCopied(const std::string& name) const {
    if (!std::filesystem::exists(inBin(name))) return testing::AssertionFailure() << name << " is not there";
    if (test::readFile(inBin(name)) != test::readFile(inKeri(name)))
        return testing::AssertionFailure() << name << " differs from its source";
    return testing::AssertionSuccess();
}

std::vector<std::string> DeploymentTest::namesInBin() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_bin))
        if (entry.path() != m_program) names.push_back(entry.path().filename().string());
    std::ranges::sort(names);
    return names;
}

std::string DeploymentTest::failedCopying(const std::string& name) const {
    return "WARN CopyDependencies - Failed copying '" + name + "' from '" + m_keri + "' to '" + m_bin + "'";
}
