#include "core/crash/internal/core_crashreport.h"

#include <gtest/gtest.h>

#include "core/identity/core_paths.h"
#include "core/identity/core_rcsname.h"
#include "core/log/core_v2masterlogger.h"
#include "tests/support/history_lines.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace {

using NS_CORE::CrashNames;
using NS_CORE::crashNames;
using Lines = std::vector<std::string>;

constexpr std::string_view kVersion = "tag_ravelin_1_1_final_0_191120-144957";

CrashNames windowsNames(std::string_view executable) {
    return crashNames(kVersion, executable, "./work/dumps", "./work/logs", '\\');
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
}

TEST(CrashGuardSwitch, IsNoOtherWord) {
    EXPECT_FALSE(isOff({"service.exe", "JITD"}));
    EXPECT_FALSE(isOff({"service.exe", "-jitd"}));
    EXPECT_FALSE(isOff({"service.exe", "jitd "}));
    EXPECT_FALSE(isOff({"service.exe", "jit"}));
    EXPECT_FALSE(isOff({"service.exe", ""}));
    EXPECT_FALSE(isOff({"jitd"}));
    EXPECT_FALSE(isOff({"jitd", "install"}));
    EXPECT_FALSE(isOff({}));
}

TEST(CrashNames, ComeFromTheProgramTheBuildAndThePaths) {
    EXPECT_EQ(windowsNames("C:\\svc\\bin\\prog.exe"),
              (CrashNames{.version = std::string(kVersion),
                          .name = "prog",
                          .dumpsDirectory = ".\\work\\dumps",
                          .dumpFile = ".\\work\\dumps\\prog-tag_ravelin_1_1_final_0_191120-144957.dmp",
                          .historyFile = "./work/logs/dumps.log"}));
}

TEST(CrashNames, KeepLinuxSeparatorsOnLinux) {
    const CrashNames names = crashNames("v", "/opt/svc/bin/quorkeri_service", "./work/dumps", "./work/logs", '/');
    EXPECT_EQ(names.name, "quorkeri_service");
    EXPECT_EQ(names.dumpFile, "./work/dumps/quorkeri_service-v.dmp");
}

TEST(CrashNames, DropOnlyTheExtensionInLowerCase) {
    EXPECT_EQ(windowsNames("C:\\bin\\Prog.EXE").name, "Prog.EXE");
    EXPECT_EQ(windowsNames("C:\\bin\\prog.Exe").name, "prog.Exe");
    EXPECT_EQ(windowsNames("C:\\bin\\prog.exe.exe").name, "prog.exe");
    EXPECT_EQ(windowsNames("prog.exe").name, "prog");
    EXPECT_EQ(windowsNames("C:\\bin\\prog").name, "prog");
    EXPECT_EQ(windowsNames("C:\\bin\\.exe").name, "");
}

TEST(CrashNames, CallAProgramWithoutANameUnknown) {
    EXPECT_EQ(windowsNames("").name, "unknown");
    EXPECT_EQ(windowsNames("C:\\bin\\").name, "unknown");
    EXPECT_EQ(windowsNames("").dumpFile, ".\\work\\dumps\\unknown-" + std::string(kVersion) + ".dmp");
}

TEST(CrashNames, OfThisProcessUseItsOwnPathsAndBuild) {
    NS_CORE::setDefaultPaths();
    NS_CORE::setPath(NS_CORE::PathKind::Dumps, "elsewhere/of/mine");
    const CrashNames names = crashNames();
    EXPECT_EQ(names.version, NS_CORE::versionWithBuildId());
    EXPECT_EQ(names.name, "core_tests");
    EXPECT_TRUE(names.dumpsDirectory == ".\\elsewhere\\of\\mine" || names.dumpsDirectory == "./elsewhere/of/mine");
    EXPECT_EQ(names.historyFile, "./work/logs/dumps.log");
}

TEST(LogDump, SaysWhatWasWrittenWhere) {
    const test::LogRecorder log;
    NS_CORE::logDump(windowsNames("prog.exe"), std::nullopt);
    EXPECT_EQ(log.lines(), Lines{"CRIT Wrote minidump for 'prog' to "
                                 "'.\\work\\dumps\\prog-tag_ravelin_1_1_final_0_191120-144957.dmp', version "
                                 "'tag_ravelin_1_1_final_0_191120-144957'"});
}

TEST(LogDump, SaysWhyItWasNot) {
    const test::LogRecorder log;
    NS_CORE::logDump(windowsNames("prog.exe"), "Access denied.\r\n");
    EXPECT_EQ(log.lines(), Lines{"CRIT Failed to write minidump for 'prog' to "
                                 "'.\\work\\dumps\\prog-tag_ravelin_1_1_final_0_191120-144957.dmp', version "
                                 "'tag_ravelin_1_1_final_0_191120-144957' (Access denied.\r\n)"});
}

TEST(LogDump, SaysNothingWithCritOff) {
    const test::LogRecorder log;
    NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Crit, 0);
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Crit, 0);
    NS_CORE::logDump(windowsNames("prog.exe"), std::nullopt);
    NS_CORE::logDump(windowsNames("prog.exe"), "Access denied.");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(DumpHistory, GetsALineEachTime) {
    const test::TempDir directory;
    CrashNames names = windowsNames("prog.exe");
    names.historyFile = directory.file("dumps.log");
    NS_CORE::appendToHistory(names);
    NS_CORE::appendToHistory(names);
    const std::string line = "TIME: prog tag_ravelin_1_1_final_0_191120-144957\n";
    EXPECT_EQ(test::withoutTimes(test::readFile(names.historyFile)), line + line);
}

TEST(DumpHistory, IsSkippedSilentlyWhereItDoesNotOpen) {
    const test::TempDir directory;
    const test::LogRecorder log;
    CrashNames names = windowsNames("prog.exe");
    names.historyFile = directory.file("missing/dumps.log");
    NS_CORE::appendToHistory(names);
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
