#include <gtest/gtest.h>

#include "tests/service/deployment_fixture.h"

TEST_F(DeploymentTest, SaysThatTheKeyIsMissing) {
    m_location.removeKey();
    EXPECT_EQ(deploy(),
              (Lines{kBegin,
                     "WARN CORE::logLastError - RegistryKey: failed open '" + kKeriKey + "': No such file or directory",
                     "CRIT getKeriInstallDir - Failed opening Keri registry key",
                     "WARN CopyDependencies - Failed getting keri install path"}));
}

TEST_F(DeploymentTest, SaysThatTheModuleDirectoryIsUnknown) {
    makeLibraries(100);
    // The program's path is longer than anything that the service reads.
    std::filesystem::path deep = m_dir.path();
    while (deep.native().size() < 1100) deep /= std::string(100, 'd');
    std::filesystem::create_directories(deep / "bin");
    std::filesystem::rename(m_program, deep / "bin" / "program");
    m_program = deep / "bin" / "program";
    std::filesystem::create_directory(deep / "settings");
    // The registry comes first, and the directory's message is the last.
    deploy();
    const std::string text = test::readFile(deep / "log.txt");
    EXPECT_TRUE(text.starts_with(kBegin + "\nWARN CORE::logLastError - RegistryKey: failed open")) << text;
    EXPECT_TRUE(
        text.ends_with("CRIT getKeriInstallDir - Failed opening Keri registry key\n"
                       "WARN CORE::Dir::getModuleFilename - buffer to small\n"
                       "WARN CopyDependencies - Failed getting module dir\n"))
        << text;
}
