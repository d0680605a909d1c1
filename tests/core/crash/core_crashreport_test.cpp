#include "core/crash/internal/core_crashreport.h"

#include <gtest/gtest.h>

#include <ctime>

#include "core/identity/core_paths.h"
#include "core/identity/core_rcsname.h"
#include "core/time/core_time.h"
#include "tests/support/history_lines.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "tests/support/time_zone.h"

namespace {

using NS_CORE::CrashNames;
using NS_CORE::crashNames;
using Lines = std::vector<std::string>;

constexpr const char* kVersion = "tag_ravelin_1_1_final_0_191120-144957";

CrashNames windowsNames(std::string_view program = "prog") {
    return crashNames(kVersion, program, "work/dumps", "work/logs", '\\');
}

bool isOff(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    return NS_CORE::isGuardSwitchedOff(static_cast<int>(argv.size()), argv.data());
}

TEST(CrashGuardSwitch, IsTheExactWordAnywhereBehindTheProgram) {
    EXPECT_TRUE(isOff({"service.exe", "jitd"}));
    EXPECT_TRUE(isOff({"service.exe", "install", "jitd"}));
    EXPECT_TRUE(isOff({"service.exe", "jitd", "install"}));
    for (const char* word : {"JITD", "-jitd", "jitd ", "jit", ""}) EXPECT_FALSE(isOff({"service.exe", word})) << word;
    EXPECT_FALSE(isOff({"jitd"}));
    EXPECT_FALSE(isOff({"jitd", "install"}));
    EXPECT_FALSE(isOff({}));
}

TEST(CrashNames, ComeFromTheProgramTheBuildAndThePaths) {
    const CrashNames names = windowsNames();
    EXPECT_STREQ(names.version, kVersion);
    EXPECT_EQ(names.name.view(), "prog");
    EXPECT_EQ(names.dumpsDirectory.view(), ".\\work\\dumps");
    EXPECT_EQ(names.dumpFile.view(), ".\\work\\dumps\\prog-tag_ravelin_1_1_final_0_191120-144957.dmp");
    EXPECT_EQ(names.historyFile.view(), "./work/logs/dumps.log");
    EXPECT_EQ(crashNames("v", "prog", "work/dumps", "work/logs", '/').dumpFile.view(), "./work/dumps/prog-v.dmp");
}

TEST(CrashNames, AreCutWhereTheyDoNotFit) {
    const std::string longPath(2000, 'x');
    const CrashNames names = crashNames("v", "prog", longPath, longPath, '/');
    EXPECT_EQ(names.historyFile.view(), "./" + longPath.substr(0, 1021));
    EXPECT_EQ(names.historyFile.c_str()[1023], '\0');
}

TEST(ProgramName, IsTheExecutablesWithoutTheExtensionInLowerCase) {
    const std::pair<std::string_view, std::string> table[] = {
        {"C:\\svc\\bin\\prog.exe", "prog"},
        {"C:\\bin\\Prog.EXE", "Prog.EXE"},
        {"C:\\bin\\prog.Exe", "prog.Exe"},
        {"C:\\bin\\prog.exe.exe", "prog.exe"},
        {"prog.exe", "prog"},
        {"C:\\bin\\prog", "prog"},
        {"C:\\bin\\.exe", ""},
        {"", "unknown"},
        {"C:\\bin\\", "unknown"},
    };
    for (const auto& [executable, name] : table) EXPECT_EQ(NS_CORE::programName(executable, '\\'), name) << executable;
    EXPECT_EQ(NS_CORE::programName("/opt/svc/bin/quorkeri_service", '/'), "quorkeri_service");
    EXPECT_EQ(NS_CORE::runningProgramName(), "core_tests");
}

TEST(CrashNames, OfThisProcessUseItsPathsAsTheyAreNow) {
    EXPECT_EQ(crashNames("me").historyFile.view(), ".//dumps.log") << "a path that is not set is no failed check";
    NS_CORE::setDefaultPaths();
    NS_CORE::setPath(NS_CORE::PathKind::Dumps, "elsewhere/of/mine");
    const CrashNames names = crashNames("me");
    EXPECT_STREQ(names.version, NS_CORE::versionWithBuildId());
    EXPECT_EQ(names.name.view(), "me");
    EXPECT_TRUE(names.dumpsDirectory.view() == ".\\elsewhere\\of\\mine" ||
                names.dumpsDirectory.view() == "./elsewhere/of/mine");
    EXPECT_EQ(names.historyFile.view(), "./work/logs/dumps.log");
}

CrashNames namesWithHistory(const std::string& file) {
    CrashNames names = windowsNames();
    names.historyFile = {};
    names.historyFile << file;
    return names;
}

// The local time now, in minutes.
std::string minuteNow() {
    const std::tm now = NS_CORE::localTimeOf(NS_CORE::systemNow().seconds);
    char text[30];
    return {text, std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &now)};
}

TEST(DumpHistory, GetsALineInLocalTimeEachTime) {
    test::setTimeZone("XXX5:30");
    const test::TempDir directory;
    const CrashNames names = namesWithHistory(directory.file("dumps.log"));
    const std::string before = minuteNow();
    NS_CORE::appendToHistory(names);
    NS_CORE::appendToHistory(names);
    const std::string history = test::readFile(directory.path() / "dumps.log");
    const std::string line = "TIME: prog tag_ravelin_1_1_final_0_191120-144957\n";
    EXPECT_EQ(test::withoutTimes(history), line + line);
    EXPECT_TRUE(history.starts_with(before) || history.starts_with(minuteNow())) << history;
}

TEST(DumpHistory, IsSkippedSilentlyWhereItDoesNotOpen) {
    const test::TempDir directory;
    const test::LogRecorder log;
    NS_CORE::appendToHistory(namesWithHistory(directory.file("missing/dumps.log")));
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "missing"));
}

TEST(InvalidParameterText, TellsWhatIsKnown) {
    EXPECT_EQ(NS_CORE::invalidParameterText("stream != NULL", "fputs", "fputs.cpp", 42),
              "Invalid parameter detected (exp=stream != NULL) (func=fputs) (file=fputs.cpp:42)");
    EXPECT_EQ(NS_CORE::invalidParameterText(nullptr, nullptr, nullptr, 0),
              "Invalid parameter detected (exp=(null)) (func=(null)) (file=(null):0)");
}

} // namespace
