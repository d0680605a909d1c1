#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "core/identity/core_rcsname.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/self_process.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

// The dump that a child leaves which crashes in that way.
std::string dumpOf(const std::string& kind) {
    const test::TempDir directory;
    fs::create_directories(directory.path() / "work/logs");
    test::SelfProcess child("guarded", {kind, directory.path().string()});
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
    return test::readFile(directory.path() / "work/dumps" /
                          ("core_tests-" + std::string(NS_CORE::versionWithBuildId()) + ".dmp"));
}

// Where the line begins that has both texts; npos when there is none.
size_t findLine(const std::string& dump, const std::string& start, const std::string& part) {
    std::istringstream stream(dump);
    size_t position = 0;
    for (std::string line; std::getline(stream, line); position += line.size() + 1) {
        if (line.starts_with(start) && line.find(part) != std::string::npos) return position;
    }
    return std::string::npos;
}

TEST(CrashDump, NamesProgramSignalAndAddress) {
    const std::string dump = dumpOf("wild");
    EXPECT_TRUE(dump.starts_with("core_tests " + std::string(NS_CORE::versionWithBuildId()) +
                                 "\nSIGSEGV (code 1) at address 0x12345678\n#01 in "))
        << dump;
}

TEST(CrashDump, BeginsAtTheFaultAndGoesOnToItsCallers) {
    const std::string dump = dumpOf("null");
    const size_t fault = findLine(dump, "#01 in ", "writeNull() at crash_kinds.cpp:");
    const size_t guard = findLine(dump, "#", " in NS_CORE::guard() at core_crashguard_linux.cpp:");
    const size_t outermost = findLine(dump, "#", " in main() at test_main.cpp:");
    EXPECT_NE(fault, std::string::npos) << dump;
    EXPECT_NE(guard, std::string::npos) << dump;
    EXPECT_NE(outermost, std::string::npos) << dump;
    EXPECT_LT(fault, guard);
    EXPECT_LT(guard, outermost);
}

TEST(CrashDump, ShowsWhoThrewWhatNobodyCatches) {
    const std::string dump = dumpOf("exception");
    EXPECT_NE(dump.find("\nSIGABRT (code -6) at address "), std::string::npos) << dump;
    EXPECT_NE(findLine(dump, "#", "throwUncaught() at crash_kinds.cpp:"), std::string::npos) << dump;
}

TEST(CrashDump, ShowsTheInnermostCallsOfAnOverflowedStack) {
    const std::string dump = dumpOf("overflow");
    EXPECT_NE(findLine(dump, "#01 in ", "overflowStack() at crash_kinds.cpp:"), std::string::npos) << dump;
    EXPECT_NE(findLine(dump, "#200 in ", "overflowStack() at crash_kinds.cpp:"), std::string::npos) << dump;
}

TEST(CrashDump, EndsWithWhatWasMappedWhere) {
    const std::string dump = dumpOf("null");
    const size_t maps = dump.find("\n\n");
    ASSERT_NE(maps, std::string::npos) << dump;
    EXPECT_NE(dump.find("/core_tests\n", maps), std::string::npos) << dump;
}

} // namespace
