#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/utl/fileutils_test.h"

using NS_UTL::FileUtils;

namespace {

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

TEST_F(Copy, AFileThatIsHeldOpenIsLoggedAndStays) {
    put("source", "new");
    put("destination", "old and longer");
    {
        const Handle holder = openSharing(dir.path() / "destination", FILE_SHARE_READ);
        EXPECT_EQ(copy(), failedOpening("destination", "writing"));
    }
    {
        const Handle holder = openSharing(dir.path() / "source", /*share=*/0);
        EXPECT_EQ(copy(), failedOpening("source", "reading"));
    }
    EXPECT_EQ(bytes("destination"), "old and longer");
}

TEST_F(Copy, ADestinationThatIsARunningProgramIsLoggedAndStays) {
    put("source", "new");
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
    ::WaitForSingleObject(ready.get(), INFINITE);
    EXPECT_EQ(copy(), failedOpening("destination", "writing"));
    ::SetEvent(end.get());
    runner.join();
    EXPECT_GT(std::filesystem::file_size(dir.path() / "destination"), 1000U);
}

TEST_F(Copy, ASourceThatBreaksOffIsLoggedAndTheDestinationRemoved) {
    const BrokenSource source(std::string(32768, 'x'));
    const Lines lines = copy(source.path());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with("WARN UTL::FileUtils::copy - error reading from " + source.path() + " ("));
    EXPECT_TRUE(std::regex_search(lines[0], std::regex(" \\([0-9]+:[A-Z][a-z ]+\\)$"))) << lines[0];
    EXPECT_FALSE(exists("destination"));
}

TEST_F(Copy, AShortReadIsTakenForTheEnd) {
    const BrokenSource source("first");
    EXPECT_EQ(copy(source.path()), Lines());
    EXPECT_EQ(bytes("destination"), "first");
}

TEST_F(RenameFile, AFileThatIsHeldOpenIsLoggedAtInfo) {
    put("from", "content");
    const Handle holder = openSharing(dir.path() / "from", FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_EQ(rename(), NS_CORE::systemErrorText(ERROR_SHARING_VIOLATION));
}

TEST_F(RenameFile, AReaderThatSharesDeletionIsNoHindrance) {
    put("from", "content");
    const Handle holder = openSharing(dir.path() / "from", FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    EXPECT_EQ(rename(), "");
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

TEST_F(RenameFile, ReplacesAndWritesThroughOnOneVolume) {
    const test::ImportHook hook("MoveFileExW", &moveAndNote);
    EXPECT_TRUE(FileUtils::renameFile("from", "to"));
    EXPECT_EQ(g_moveFlags, DWORD{MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH});
}

TEST_F(Copy, CommitsNothingToTheDisk) {
    put("source", "bytes");
    const test::ImportHook hook("_commit", &commitAndNote);
    EXPECT_EQ(copy(), Lines());
    EXPECT_EQ(g_commits, 0);
}

} // namespace
