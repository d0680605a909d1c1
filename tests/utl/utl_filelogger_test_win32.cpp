#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/open_sharing_win32.h"
#include "tests/support/planted_code.h"
#include "tests/support/self_process.h"
#include "tests/support/stream_capture.h"
#include "tests/utl/filelogger_test.h"

using test::printedBy;

namespace {

using Lines = std::vector<std::string>;

TEST_F(FileLoggerTest, DropsRecordsWhileAnotherProgramLocksTheFile) {
    install(5000000, 1);
    say("1");
    std::string printed;
    {
        const auto locked = test::openSharing(test::fromText(log()), /*share=*/0);
        printed = printedBy([] { say("lost"); }).error;
    }
    EXPECT_EQ(printed, openFailure());
    EXPECT_EQ(hook.single().message, "");
    say("2");
    EXPECT_EQ(texts(log()), (Lines{"1", "2"}));
}

TEST_F(FileLoggerTest, WritesOnWhileAnotherProgramReadsAndRotatesWhenItMay) {
    install(30, 1);
    say("1");
    {
        const auto reader = test::openSharing(test::fromText(log()), FILE_SHARE_READ | FILE_SHARE_WRITE);
        const std::string printed = printedBy([] { say("2, long enough"); }).error;
        EXPECT_TRUE(printed.starts_with(renameFailure(log(), log() + ".old"))) << printed;
        expectRenameCheck();
    }
    EXPECT_EQ(texts(log()), (Lines{"1", "2, long enough"}));
    say("3");
    EXPECT_EQ(texts(log() + ".old"), (Lines{"1", "2, long enough", "3"}));
}

// Logs one record, and would end with 0 if the system were not asked to commit it.
const test::ChildProgram g_logsWhereACommitFaults("LogsWhereACommitFaults", [](const auto& arguments) {
    for (const char* module : {"kernel32", "kernelbase"})
        test::overwrite(reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA(module), "FlushFileBuffers")),
                        test::kFault);
    NS_CORE::MasterLogger::setImplementation(
        std::make_unique<NS_UTL::FileLogger>(arguments.at(0), "service.log", 5000000U, 1U));
    FileLoggerTest::say("committed");
    return 0;
});

TEST_F(FileLoggerTest, CommitsEachRecord) {
    test::SelfProcess child("LogsWhereACommitFaults", {directory()}, test::SelfProcess::StandardError::WithOutput);
    child.readAll();
    EXPECT_NE(child.wait(), 0);
    EXPECT_EQ(texts(log()), Lines{"committed"}) << "written by then";
}

} // namespace
