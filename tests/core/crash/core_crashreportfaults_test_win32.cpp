#include <gtest/gtest.h>
#include <windows.h>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "tests/core/crash/crashreportfaults_fixture.h"

namespace test {
namespace {

// With '\n' for its line break.
std::string textOf(DWORD error) {
    std::string text = NS_CORE::systemErrorText(error);
    std::erase(text, '\r');
    return text;
}

} // namespace

const bool kLeavesWhatHangs = false;
const uint32_t kImpatienceMs = 6000;
const bool kDumpNeedsNoMemory = false;

std::string lineOfFaultingWriter(const std::string& /*written*/,
                                 const std::function<std::string(const std::string& error)>& failed) {
    return failed(textOf(ERROR_INVALID_DATA));
}

std::string errorOfDirectoryInPlace() {
    return textOf(ERROR_ACCESS_DENIED);
}

const Preparations& platformPreparations() {
    static const Preparations none;
    return none;
}

} // namespace test

namespace {

// A file that no other program may open meanwhile, as a scanner or an archiver has it.
NS_CORE::ScopedFileHandle holdAlone(const std::filesystem::path& path) {
    std::filesystem::create_directories(path.parent_path());
    return NS_CORE::ScopedFileHandle(::CreateFileW(path.c_str(), GENERIC_WRITE, /*dwShareMode=*/0,
                                                   /*lpSecurityAttributes=*/nullptr, CREATE_ALWAYS,
                                                   FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr));
}

TEST_F(CrashReportFaultsTest, ADumpThatAnotherProgramHoldsIsTold) {
    const NS_CORE::ScopedFileHandle held = holdAlone(dumpFile());
    ASSERT_TRUE(held);
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(test::textOf(ERROR_SHARING_VIOLATION)));
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashReportFaultsTest, AHistoryThatAnotherProgramHoldsIsLeftOutSilently) {
    const NS_CORE::ScopedFileHandle held = holdAlone(historyFile());
    ASSERT_TRUE(held);
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_GT(std::filesystem::file_size(dumpFile()), 100U);
}

} // namespace
