#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

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
    DeploymentTest();

    // Runs CopyDependencies there and returns what it logged: "LEVEL text", and "CHECK source: message" for failed
    // checks. With "again" in `how` it runs that many times more.
    std::vector<std::string> deploy(const std::vector<std::string>& how = {});

    // Registers `directory`, as REG_SZ with a terminator.
    void registerDirectory(const std::string& directory);

    // Makes the six libraries, each of its own bytes and of that size.
    void makeLibraries(size_t size);

    // Of a file name in bin and in the Keri installation; UTF-8 in the platform's own form.
    std::string inBin(const std::string& name) const { return join(m_bin, name); }
    std::string inKeri(const std::string& name) const { return join(m_keri, name); }

    // The library's bytes are those of its source.
    testing::AssertionResult isCopied(const std::string& name) const;

    // The names in bin but for the program's own.
    std::vector<std::string> namesInBin() const;

    std::string failedCopying(const std::string& name) const;

    static std::string join(const std::string& directory, const std::string& name);

    test::TempDir m_dir;
    std::string m_bin = m_dir.file("bin");
    std::string m_keri = m_dir.file("keri");
    std::string m_program = inBin("service_tests.exe");
    test::RegistryValue m_location{kKeriKey, "InstallLocation", m_dir.path()};
};
