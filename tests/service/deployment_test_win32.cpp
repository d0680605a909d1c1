#include <gtest/gtest.h>
#include <windows.h>

#include "service/deployment.h"
#include "tests/service/deployment_fixture.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"
#include "tests/support/open_sharing_win32.h"

namespace {

DWORD WINAPI cutPath(HMODULE /*module*/, LPSTR /*path*/, DWORD size) {
    return size;
}

} // namespace

TEST_F(DeploymentTest, LooksForTheInstallationBeforeItsOwnDirectory) {
    m_location.removeKey();
    const test::LogRecorder log;
    const test::ImportHook hook("GetModuleFileNameA", &cutPath);
    service::CopyDependencies();
    EXPECT_EQ(log.lines(), (Lines{kBegin, "WARN NS_UTL::RegistryKey::getValue(InstallLocation) - error 2",
                                  "CRIT getKeriInstallDir - Could not locate KERI install directory from registry",
                                  "WARN CORE::Dir::getModuleFilename - buffer to small",
                                  "WARN CopyDependencies - Failed getting module dir"}));
}

TEST_F(DeploymentTest, SkipsALibraryThatIsHeldOpen) {
    makeLibraries(100);
    registerDirectory(m_keri);
    test::writeFile(inBin("DHS.dll"), "older");
    {
        const auto held = test::openSharing(test::fromText(inBin("DHS.dll")), /*share=*/0);
        EXPECT_EQ(deploy(),
                  (Lines{kBegin, "WARN UTL::FileUtils::copy - failed opening '" + inBin("DHS.dll") + "' for writing",
                         failedCopying("DHS.dll")}));
    }
    EXPECT_EQ(test::readFile(inBin("DHS.dll")), "older");
    EXPECT_TRUE(isCopied("DHSAttributes.dll"));
}

TEST_F(DeploymentTest, FindsTheDirectoryOfTheSampleThatServesBothPlatforms) {
    m_location.removeKey();
    EXPECT_EQ(test::runAndWait("regedit.exe /S " + test::dataFile("keri.reg")), 0);
    EXPECT_EQ(service::getKeriInstallDir(), "C:\\Keri\\");
}
