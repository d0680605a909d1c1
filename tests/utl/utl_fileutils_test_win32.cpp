#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <thread>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/open_sharing_win32.h"
#include "tests/utl/fileutils_test.h"

using NS_UTL::FileUtils;
using test::openSharing;

namespace {

using Handle = NS_CORE::ScopedFileHandle;

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

TEST_F(Copy, ASourceThatBreaksOffIsLoggedAndTheDestinationRemoved) {
    // A pipe, which opens like a file: whoever is at its other end hands over one block and goes away.
    const std::string block(32768, 'x');
    const std::string source = R"(\\.\pipe\quorkeri-test-)" + std::to_string(::GetCurrentProcessId());
    const Handle pipe(
        ::CreateNamedPipeA(source.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 65536, 0, 0, nullptr));
    std::thread server([&] {
        ::ConnectNamedPipe(pipe.get(), nullptr);
        DWORD written = 0;
        ::WriteFile(pipe.get(), block.data(), static_cast<DWORD>(block.size()), &written, nullptr);
        ::FlushFileBuffers(pipe.get()); // until it is read
        ::DisconnectNamedPipe(pipe.get());
    });
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(source, dir.file("destination")));
    server.join();
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("WARN UTL::FileUtils::copy - error reading from " + source + " ("));
    EXPECT_FALSE(exists("destination"));
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
