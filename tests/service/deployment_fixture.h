#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/registry_value.h"
#include "tests/support/temp_dir.h"

inline const std::string kKeriKey =
    "SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}";

inline constexpr const char* kLibraries[] = {"ClientSocketServices.dll", "DHS.dll",
                                             "DHS_Commands.dll",         "SocketServices.dll",
                                             "TracerX-Logger.dll",       "DHSAttributes.dll"};

inline const std::string kBegin = "INFO CopyDependencies - Copying dependencies";

// An installation of the service, whose program is this test's, and one of the Keri software. The deployment itself
// runs in a child process, because it copies to where its own executable lies.
class DeploymentTest : public testing::Test {
protected:
    using Lines = std::vector<std::string>;

    DeploymentTest() {
        std::filesystem::create_directory(m_bin);
        std::filesystem::create_directory(m_keri);
        test::linkThisProgram(m_program);
    }

    // Runs CopyDependencies there and returns what it logged: "LEVEL text", and "CHECK source: message" for failed
    // checks. With "again" in `how` it runs that many times more.
    Lines deploy(const Lines& how = {}) const {
        EXPECT_EQ(test::runAndWait(test::childCommandLineOf(m_program, "deploy", how)), 0);
        std::ifstream log(m_dir.path() / "log.txt", std::ios::binary);
        Lines lines;
        for (std::string line; std::getline(log, line);) lines.push_back(line);
        return lines;
    }

    // Registers `directory`, as REG_SZ with a terminator.
    void registerDirectory(const std::string& directory) { m_location.set(/*type=*/1, directory + '\0'); }

    // Makes the six libraries, each of its own bytes and of that size.
    void makeLibraries(size_t size) const {
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

    // Of a file name in bin and in the Keri installation; UTF-8 in the platform's own form.
    std::string inBin(const std::string& name) const { return join(m_bin, name); }
    std::string inKeri(const std::string& name) const { return join(m_keri, name); }
    static std::string join(const std::string& directory, const std::string& name) {
        return directory + static_cast<char>(std::filesystem::path::preferred_separator) + name;
    }

    // The library's bytes are those of its source.
    testing::AssertionResult isCopied(const std::string& name) const {
        if (!std::filesystem::exists(inBin(name))) return testing::AssertionFailure() << name << " is not there";
        if (test::readFile(inBin(name)) != test::readFile(inKeri(name)))
            return testing::AssertionFailure() << name << " differs from its source";
        return testing::AssertionSuccess();
    }

    // The names in bin but for the program's own.
    Lines namesInBin() const {
        Lines names;
        for (const auto& entry : std::filesystem::directory_iterator(m_bin))
            if (entry.path() != m_program) names.push_back(entry.path().filename().string());
        std::ranges::sort(names);
        return names;
    }

    std::string failedCopying(const std::string& name) const {
        return "WARN CopyDependencies - Failed copying '" + name + "' from '" + m_keri + "' to '" + m_bin + "'";
    }

    test::TempDir m_dir;
    std::string m_bin = m_dir.file("bin");
    std::string m_keri = m_dir.file("keri");
    std::string m_program = inBin("service_tests.exe");
    test::RegistryValue m_location{kKeriKey, "InstallLocation", m_dir.path()};
};
