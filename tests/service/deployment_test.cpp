#include "service/deployment.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/log/core_v2masterlogger.h"
#include "tests/service/deployment_fixture.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"

namespace {

const std::string kNoLocation = "CRIT getKeriInstallDir - Could not locate KERI install directory from registry";
const std::string kNoPath = "WARN CopyDependencies - Failed getting keri install path";
const std::string kValueError = "WARN NS_UTL::RegistryKey::getValue(InstallLocation) - ";

// Deploys from the installation that this program lies in the bin directory of, once more for each argument.
const test::ChildProgram g_deploy("deploy", [](const std::vector<std::string>& arguments) {
    std::filesystem::current_path(std::filesystem::path(test::thisProgram()).parent_path().parent_path());
    // As the service has it: rates are limited. Each limited record comes half an hour after the one before.
    const NS_CORE::DefaultGlobals globals;
    NS_CORE::MasterLogger::setRateImplementation(
        std::make_unique<NS_CORE::DefaultLogRImpl>([now = uint64_t{0}]() mutable { return now += 1'800'000; }));
    const test::HookRecorder hook;
    const test::LogRecorder log;
    for (size_t i = 0; i <= arguments.size(); ++i) service::CopyDependencies();
    std::string text;
    for (const std::string& line : log.lines()) text += line + '\n';
    for (const test::FailedCheck& check : hook.failures()) text += "CHECK " + check.file + ": " + check.message + '\n';
    test::writeFile("log.txt", text);
    return 0;
});

} // namespace

TEST_F(DeploymentTest, CopiesTheSixLibrariesByteForByteWhateverIsThere) {
    // The second is a directory stored without a terminator.
    for (const auto& [size, location] : {std::pair(1'000'000U, m_keri + '\0'), {100U, m_keri}}) {
        m_location.set(/*type=*/1, location);
        makeLibraries(size);
        EXPECT_EQ(deploy(), Lines{kBegin});
        for (const char* name : kLibraries) EXPECT_TRUE(isCopied(name)) << size;
    }
    EXPECT_EQ(namesInBin(), (Lines{"ClientSocketServices.dll", "DHS.dll", "DHSAttributes.dll", "DHS_Commands.dll",
                                   "SocketServices.dll", "TracerX-Logger.dll"}));
}

TEST_F(DeploymentTest, SkipsAMissingLibraryAndCopiesTheOthers) {
    makeLibraries(100);
    std::filesystem::remove(inKeri("DHS_Commands.dll"));
    // The separator of a directory that ends in one is doubled, which the systems accept.
    m_keri = join(m_keri, "");
    registerDirectory(m_keri);
    const std::string missing = inKeri("DHS_Commands.dll");
    EXPECT_EQ(deploy(), (Lines{kBegin, "WARN UTL::FileUtils::copy - failed opening '" + missing + "' for reading",
                               failedCopying("DHS_Commands.dll")}));
    EXPECT_EQ(missing, join(m_dir.file("keri"), "") + join("", "DHS_Commands.dll"));
    EXPECT_EQ(namesInBin(), (Lines{"ClientSocketServices.dll", "DHS.dll", "DHSAttributes.dll", "SocketServices.dll",
                                   "TracerX-Logger.dll"}));
    for (const std::string& name : namesInBin()) EXPECT_TRUE(isCopied(name));
}

TEST_F(DeploymentTest, SkipsADestinationThatIsADirectory) {
    makeLibraries(100);
    std::filesystem::create_directory(inBin("DHS.dll"));
    registerDirectory(m_keri);
    EXPECT_EQ(deploy(),
              (Lines{kBegin, "WARN UTL::FileUtils::copy - failed opening '" + inBin("DHS.dll") + "' for writing",
                     failedCopying("DHS.dll")}));
    EXPECT_TRUE(std::filesystem::is_directory(inBin("DHS.dll")));
    EXPECT_TRUE(isCopied("DHSAttributes.dll"));
}

TEST_F(DeploymentTest, SaysOfEachLibraryThatItsDirectoryIsMissing) {
    m_keri = m_dir.file("nowhere");
    registerDirectory(m_keri);
    Lines expected{kBegin};
    for (const char* name : kLibraries) {
        expected.push_back("WARN UTL::FileUtils::copy - failed opening '" + inKeri(name) + "' for reading");
        expected.push_back(failedCopying(name));
    }
    EXPECT_EQ(deploy(), expected);
    EXPECT_TRUE(namesInBin().empty());
}

TEST_F(DeploymentTest, CopiesNothingFromADirectoryStoredWithTwoTerminators) {
    makeLibraries(100);
    // One stays in the text, and the systems' calls end there.
    m_location.set(1, m_keri + std::string(2, '\0'));
    const Lines lines = deploy();
    m_keri += '\0';
    for (const char* name : kLibraries) EXPECT_EQ(std::ranges::count(lines, failedCopying(name)), 1) << name;
    EXPECT_TRUE(namesInBin().empty());
}

TEST_F(DeploymentTest, CopiesBetweenDirectoriesWithNamesOutsideAscii) {
    const std::u8string name = u8"Ж é 測試";
    m_keri = m_dir.file({name.begin(), name.end()});
    std::filesystem::create_directory(m_dir.path() / name);
    registerDirectory(m_keri);
    test::writeFile(m_dir.path() / name / "DHS.dll", "bytes");
    EXPECT_EQ(deploy().size(), 11U);
    EXPECT_EQ(test::readFile(inBin("DHS.dll")), "bytes");
}

TEST_F(DeploymentTest, DoesNotCopyForAnUnusableValue) {
    struct Row {
        uint32_t type;
        std::string bytes;
        Lines lines;
    };
    for (const Row& row :
         {Row{1, std::string(1, '\0'), {kBegin, kNoPath}},
          Row{1, "", {kBegin, kNoLocation, kNoPath, "CHECK utl_registry: "}},
          Row{2,
              std::string("%ProgramFiles%\0", 15),
              {kBegin, kValueError + "type=2 expected 1", kNoLocation, kNoPath}},
          Row{4, std::string(4, '\1'), {kBegin, kValueError + "type=4 expected 1", kNoLocation, kNoPath}}}) {
        m_location.set(row.type, row.bytes);
        EXPECT_EQ(deploy(), row.lines);
    }
    EXPECT_TRUE(namesInBin().empty());
}

TEST_F(DeploymentTest, DoesNotCopyWithoutTheValueAndSaysWhyOnceAnHour) {
    m_location.removeValue();
    EXPECT_EQ(deploy({"again", "again"}),
              (Lines{kBegin, kValueError + "error 2", kNoLocation, kNoPath, kBegin, kValueError + "error 2", kNoPath,
                     kBegin, kValueError + "error 2", kNoLocation + " [2 times in 3600 seconds]", kNoPath}));
}
