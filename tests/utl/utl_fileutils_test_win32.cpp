#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_fileutils.h"

namespace NS_UTL {
namespace {

using Lines = std::vector<std::string>;

using Handle = NS_CORE::ScopedFileHandle;

Handle openSharing(const std::filesystem::path& path, DWORD share) {
    Handle handle(::CreateFileW(path.c_str(), GENERIC_READ, share, /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr));
    EXPECT_TRUE(handle);
    return handle;
}

// Stands in for a file whose disk goes away: sends the bytes to whoever opens it, then cuts the connection.
class BrokenSource {
public:
    explicit BrokenSource(const std::string& bytes)
        : m_path("\\\\.\\pipe\\quorkeri-test-" + std::to_string(::GetCurrentProcessId())),
          m_pipe(::CreateNamedPipeA(m_path.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE | PIPE_WAIT,
                                    /*nMaxInstances=*/1, /*nOutBufferSize=*/65536, /*nInBufferSize=*/0,
                                    /*nDefaultTimeOut=*/0, /*lpSecurityAttributes=*/nullptr)),
          m_server([this, bytes] { serve(bytes); }) {}
    ~BrokenSource() { m_server.join(); }

    const std::string& path() const { return m_path; }

private:
    void serve(const std::string& bytes) {
        EXPECT_TRUE(::ConnectNamedPipe(m_pipe.get(), nullptr) || ::GetLastError() == ERROR_PIPE_CONNECTED);
        DWORD written = 0;
        EXPECT_TRUE(::WriteFile(m_pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
        ::FlushFileBuffers(m_pipe.get()); // until it is read
        ::DisconnectNamedPipe(m_pipe.get());
    }

    std::string m_path;
    Handle m_pipe;
    std::thread m_server;
};

// Sets one event when it runs, and ends with the other.
const test::ChildProgram g_runsUntil("runs-until-set", [](const auto& arguments) {
    const NS_CORE::ScopedKernelHandle ready(::OpenEventA(EVENT_MODIFY_STATE, FALSE, arguments.at(0).c_str()));
    const NS_CORE::ScopedKernelHandle end(::OpenEventA(SYNCHRONIZE, FALSE, arguments.at(1).c_str()));
    ::SetEvent(ready.get());
    ::WaitForSingleObject(end.get(), INFINITE);
    return 0;
});

void expectRefusedAndKept(const test::TempDir& dir, const std::string& before) {
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - failed opening '" + dir.file("destination") + "' for writing"}));
    EXPECT_TRUE(test::readFile(dir.path() / "destination") == before);
}

TEST(CopyWin32, ADestinationThatIsHeldOpenIsLoggedAndStays) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "new");
    test::writeFile(dir.path() / "destination", "old and longer");
    const Handle holder = openSharing(dir.path() / "destination", FILE_SHARE_READ);
    expectRefusedAndKept(dir, "old and longer");
}

TEST(CopyWin32, ADestinationThatIsARunningProgramIsLoggedAndStays) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "new");
    test::linkThisProgram(dir.path() / "destination");
    const std::string readyName = "quorkeri-ready-" + std::to_string(::GetCurrentProcessId());
    const std::string endName = "quorkeri-end-" + std::to_string(::GetCurrentProcessId());
    const NS_CORE::ScopedKernelHandle ready(::CreateEventA(nullptr, TRUE, FALSE, readyName.c_str()));
    const NS_CORE::ScopedKernelHandle end(::CreateEventA(nullptr, TRUE, FALSE, endName.c_str()));
    std::thread runner([&] {
        EXPECT_EQ(
            test::runAndWait(test::childCommandLineOf(dir.file("destination"), "runs-until-set", {readyName, endName})),
            0);
    });
    ASSERT_EQ(::WaitForSingleObject(ready.get(), 30000), DWORD{WAIT_OBJECT_0});
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - failed opening '" + dir.file("destination") + "' for writing"}));
    ::SetEvent(end.get());
    runner.join();
    EXPECT_GT(std::filesystem::file_size(dir.path() / "destination"), 1000U);
}

TEST(CopyWin32, ASourceThatIsLockedIsLogged) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "new");
    const Handle holder = openSharing(dir.path() / "source", /*share=*/0);
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - failed opening '" + dir.file("source") + "' for reading"}));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "destination"));
}

TEST(CopyWin32, ASourceThatBreaksOffIsLoggedAndTheDestinationRemoved) {
    const test::TempDir dir;
    const test::LogRecorder log;
    const BrokenSource source(std::string(32768, 'x'));
    EXPECT_FALSE(FileUtils::copy(source.path(), dir.file("destination")));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("WARN UTL::FileUtils::copy - error reading from " + source.path() + " ("));
    EXPECT_TRUE(std::regex_search(log.lines()[0], std::regex(" \\([0-9]+:[A-Z][a-z ]+\\)$"))) << log.lines()[0];
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "destination"));
}

TEST(CopyWin32, AShortReadIsTakenForTheEnd) {
    const test::TempDir dir;
    const test::LogRecorder log;
    const BrokenSource source("first");
    EXPECT_TRUE(FileUtils::copy(source.path(), dir.file("destination")));
    EXPECT_EQ(test::readFile(dir.path() / "destination"), "first");
    EXPECT_TRUE(log.lines().empty());
}

TEST(RenameFileWin32, AFileThatIsHeldOpenIsLoggedAtInfo) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "content");
    const test::LogRecorder log;
    const Handle holder = openSharing(dir.path() / "from", FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_FALSE(FileUtils::renameFile(dir.file("from"), dir.file("to")));
    EXPECT_EQ(log.lines(), (Lines{"INFO NS_UTL::FileUtils::renameFile - '" + dir.file("from") + "'=>'" +
                                  dir.file("to") + "' failed : " + NS_CORE::systemErrorText(ERROR_SHARING_VIOLATION)}));
}

DWORD g_moveFlags = 0;
int g_commits = 0;

BOOL WINAPI moveAndNote(LPCWSTR /*from*/, LPCWSTR /*to*/, DWORD flags) {
    g_moveFlags = flags;
    return TRUE;
}

int __cdecl commitAndNote(int /*fd*/) {
    return ++g_commits;
}

TEST(RenameFileWin32, ReplacesAndWritesThroughOnOneVolume) {
    const test::ImportHook hook("MoveFileExW", &moveAndNote);
    EXPECT_TRUE(FileUtils::renameFile("from", "to"));
    EXPECT_EQ(g_moveFlags, DWORD{MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH});
}

TEST(CopyWin32, CommitsNothingToTheDisk) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "bytes");
    const test::ImportHook hook("_commit", &commitAndNote);
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(g_commits, 0);
}

TEST(RenameFileWin32, AReaderThatSharesDeletionIsNoHindrance) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "content");
    const Handle holder = openSharing(dir.path() / "from", FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    EXPECT_TRUE(FileUtils::renameFile(dir.file("from"), dir.file("to")));
}

} // namespace
} // namespace NS_UTL
