#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>

#include "tests/service/deployment_fixture.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kBegin = "INFO CopyDependencies - Copying dependencies";

// Children without the administrator's rights work in it, too.
void openToAll(const std::filesystem::path& path) {
    std::filesystem::permissions(path, std::filesystem::perms::all);
}

} // namespace

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

TEST_F(DeploymentTest, SkipsALibraryThatAProgramRunsFrom) {
    makeLibraries(100);
    registerDirectory(m_keri);
    std::filesystem::copy_file("/bin/sleep", inBin("DHS.dll"));
    const uintmax_t size = std::filesystem::file_size(inBin("DHS.dll"));
    pid_t sleeper = 0;
    std::string path = inBin("DHS.dll");
    char limit[] = "100";
    char* arguments[] = {path.data(), limit, nullptr};
    // Returns when the program runs.
    ASSERT_EQ(::posix_spawn(&sleeper, path.c_str(), nullptr, nullptr, arguments, environ), 0);
    EXPECT_EQ(deploy(),
              (Lines{kBegin, "WARN UTL::FileUtils::copy - failed opening '" + inBin("DHS.dll") + "' for writing",
                     failedCopying("DHS.dll")}));
    EXPECT_EQ(std::filesystem::file_size(inBin("DHS.dll")), size);
    EXPECT_TRUE(isCopied("DHSAttributes.dll"));
    ::kill(sleeper, SIGKILL);
    ::waitpid(sleeper, nullptr, 0);
}

TEST_F(DeploymentTest, SkipsAReadOnlyDestinationAndAnUnreadableSource) {
    makeLibraries(100);
    registerDirectory(m_keri);
    for (const auto& path : {m_dir.path(), m_dir.path() / "bin"}) openToAll(path);
    test::writeFile(inBin("DHS.dll"), "older");
    ::chmod(inBin("DHS.dll").c_str(), 0444);
    ::chmod(inKeri("SocketServices.dll").c_str(), 0);
    EXPECT_EQ(deploy({"nobody"}),
              (Lines{kBegin, "WARN UTL::FileUtils::copy - failed opening '" + inBin("DHS.dll") + "' for writing",
                     failedCopying("DHS.dll"),
                     "WARN UTL::FileUtils::copy - failed opening '" + inKeri("SocketServices.dll") + "' for reading",
                     failedCopying("SocketServices.dll")}));
    EXPECT_EQ(test::readFile(inBin("DHS.dll")), "older");
    EXPECT_FALSE(std::filesystem::exists(inBin("SocketServices.dll")));
    EXPECT_TRUE(isCopied("DHSAttributes.dll"));
}

TEST_F(DeploymentTest, LeavesNothingOfALibraryWhoseSourceCannotBeReadToItsEnd) {
    makeLibraries(100);
    registerDirectory(m_keri);
    std::filesystem::remove(inKeri("DHS.dll"));
    std::filesystem::create_directory(inKeri("DHS.dll"));
    EXPECT_EQ(
        deploy(),
        (Lines{kBegin, "WARN UTL::FileUtils::copy - error reading from " + inKeri("DHS.dll") + " (21:Is a directory)",
               failedCopying("DHS.dll")}));
    EXPECT_FALSE(std::filesystem::exists(inBin("DHS.dll")));
}

TEST_F(DeploymentTest, LeavesNothingOfALibraryThatTheDiskHasNoRoomFor) {
    makeLibraries(100);
    test::writeFile(inKeri("DHS_Commands.dll"), std::string(2 * 1024 * 1024, 'x'));
    registerDirectory(m_keri);
    const Lines lines = deploy({"full-disk"});
    ASSERT_EQ(lines.size(), 8U);
    // 254 pages of 4096 bytes are left for it: 31 writes and the better part of another.
    EXPECT_EQ(lines[1], "WARN UTL::FileUtils::copy - only wrote 24576 of 32768 to " + inBin("DHS_Commands.dll"));
    EXPECT_EQ(lines[2], failedCopying("DHS_Commands.dll"));
    EXPECT_EQ(Lines(lines.begin() + 3, lines.end()),
              (Lines{"BIN ClientSocketServices.dll: 100", "BIN DHS.dll: 100", "BIN DHSAttributes.dll: 100",
                     "BIN SocketServices.dll: 100", "BIN TracerX-Logger.dll: 100"}));
}

TEST_F(DeploymentTest, LeavesNothingOfALibraryLargerThanFilesMayBe) {
    makeLibraries(100);
    test::writeFile(inKeri("DHS_Commands.dll"), std::string(256 * 1024 + 1, 'x'));
    registerDirectory(m_keri);
    EXPECT_EQ(deploy({"small-files"}), (Lines{kBegin,
                                              "WARN UTL::FileUtils::copy - error writing to " +
                                                  inBin("DHS_Commands.dll") + " (27:File too large)",
                                              failedCopying("DHS_Commands.dll")}));
    EXPECT_FALSE(std::filesystem::exists(inBin("DHS_Commands.dll")));
    EXPECT_TRUE(isCopied("DHSAttributes.dll"));
}
