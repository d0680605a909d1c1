#include <gtest/gtest.h>
#include <windows.h>

#include "service/deployment.h"
#include "tests/service/deployment_fixture.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"

namespace {

using Lines = std::vector<std::string>;

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

TEST_F(DeploymentTest, FindsTheDirectoryOfTheSampleThatServesBothPlatforms) {
    m_location.removeKey();
    EXPECT_EQ(test::runAndWait("regedit.exe /S " + test::dataFile("keri.reg")), 0);
    EXPECT_EQ(service::getKeriInstallDir(), "C:\\Keri\\");
}
