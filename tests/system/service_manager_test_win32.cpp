#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"
#include "tests/system/supervised_service.h"

// The service under the real service control manager.
namespace test {
namespace {

constexpr const char* kInstalledHead = "UTL::Service::run - installed service 'quorkeri_service.exe' running '";

// A program of the installation with one word; its exit code.
int64_t runWord(const Installation& installation, const std::string& word) {
    Process process(installation.program(), {word}, installation.output());
    const auto code = process.awaitExit();
    EXPECT_TRUE(code.has_value()) << word;
    return code.value_or(-1);
}

std::string textOrNone(const wchar_t* text) {
    return text ? utf8(text) : "";
}

// Sends a control; 0, or the manager's refusal. The status is the one that the answer carries.
DWORD control(DWORD code, SERVICE_STATUS* status = nullptr) {
    SERVICE_STATUS own{};
    const ServiceHandle service = openInstalledService();
    return ::ControlService(service.get(), code, status ? status : &own) ? 0 : ::GetLastError();
}

void expectStatus(const SERVICE_STATUS& status, DWORD state) {
    EXPECT_EQ(status.dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
    EXPECT_EQ(status.dwCurrentState, state);
    EXPECT_EQ(status.dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN));
    EXPECT_EQ(status.dwWin32ExitCode, 0U);
    EXPECT_EQ(status.dwServiceSpecificExitCode, 0U);
    EXPECT_EQ(status.dwCheckPoint, 0U);
    EXPECT_EQ(status.dwWaitHint, 0U);
}

TEST(ServiceManager, InstallsAndRemovesWithExitCodesAndLogLines) {
    for (const std::string name : {"installation", "Quorvane Keri Wrapper (x86)", "Ж é 測試"}) {
        removeLeftService();
        const Installation installation(name);
        const std::string program = pathText(installation.program());
        const std::string installed = kInstalledHead + program + "'";

        EXPECT_EQ(runWord(installation, "service-install"), 0);
        const ServiceConfiguration stored(openInstalledService());
        EXPECT_EQ(stored->dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
        EXPECT_EQ(stored->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
        EXPECT_EQ(stored->dwErrorControl, static_cast<DWORD>(SERVICE_ERROR_NORMAL));
        EXPECT_EQ(stored->dwTagId, 0U);
        // As obtained: not quoted, no arguments.
        EXPECT_EQ(textOrNone(stored->lpBinaryPathName), program);
        EXPECT_EQ(textOrNone(stored->lpServiceStartName), "LocalSystem");
        EXPECT_EQ(textOrNone(stored->lpDisplayName), "Quorvane Keri Wrapper");
        EXPECT_EQ(textOrNone(stored->lpLoadOrderGroup), "");
        EXPECT_EQ(textOrNone(stored->lpDependencies), "");

        EXPECT_EQ(runWord(installation, "service-install"), 0);
        EXPECT_EQ(runWord(installation, "service-remove"), 0);
        EXPECT_FALSE(openService());
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
        EXPECT_EQ(runWord(installation, "service-remove"), 1);
        EXPECT_EQ(installation.log(),
                  (std::vector<std::string>{installed, installed,
                                            "UTL::Service::run - removed service 'quorkeri_service.exe'",
                                            "UTL::Service::remove - failed to open service 'quorkeri_service.exe': " +
                                                systemText(ERROR_SERVICE_DOES_NOT_EXIST),
                                            "UTL::Service::run - failed to remove service 'quorkeri_service.exe'"}));
    }
}

TEST(ServiceManager, AnswersEveryControlWithItsStatusAndItsLogLine) {
    const Installation installation;
    installation.setCompanion("ignore 1");
    SupervisedService service(installation);
    service.start();
    installation.awaitRecord("ready");
    SERVICE_STATUS status{};
    EXPECT_TRUE(::QueryServiceStatus(openInstalledService().get(), &status));
    expectStatus(status, SERVICE_RUNNING);

    EXPECT_EQ(control(SERVICE_CONTROL_INTERROGATE, &status), 0U);
    expectStatus(status, SERVICE_RUNNING);
    // The manager itself refuses what the service does not accept.
    EXPECT_EQ(control(SERVICE_CONTROL_PAUSE), static_cast<DWORD>(ERROR_INVALID_SERVICE_CONTROL));
    EXPECT_EQ(control(SERVICE_CONTROL_CONTINUE), static_cast<DWORD>(ERROR_INVALID_SERVICE_CONTROL));
    constexpr DWORD kFirstOwn = 128;
    constexpr DWORD kLastOwn = 255;
    EXPECT_EQ(control(kFirstOwn, &status), 0U);
    expectStatus(status, SERVICE_RUNNING);
    EXPECT_EQ(control(kLastOwn, &status), 0U);
    expectStatus(status, SERVICE_RUNNING);
    const ServiceHandle handle = openInstalledService();
    EXPECT_FALSE(::StartServiceW(handle.get(), 0, nullptr));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SERVICE_ALREADY_RUNNING));

    EXPECT_EQ(control(SERVICE_CONTROL_STOP, &status), 0U);
    expectStatus(status, SERVICE_STOP_PENDING);
    EXPECT_EQ(control(SERVICE_CONTROL_STOP), static_cast<DWORD>(ERROR_SERVICE_CANNOT_ACCEPT_CTRL));
    installation.awaitRecord("datagram");
    EXPECT_FALSE(service.hasStopped());
    sendDatagram(kStopPort, 1);
    service.awaitStopped();
    EXPECT_EQ(control(SERVICE_CONTROL_STOP), static_cast<DWORD>(ERROR_SERVICE_NOT_ACTIVE));
    EXPECT_EQ(control(SERVICE_CONTROL_INTERROGATE), static_cast<DWORD>(ERROR_SERVICE_NOT_ACTIVE));

    const std::string failedCheck = "CORE::Assert::failDefault - GASSERT failed at utl_service_win32:180 (CHECKF) ";
    EXPECT_EQ(installation.log(),
              SupervisedService::wholeLog({"UTL::Service::controlHandler - SERVICE_CONTROL_INTERROGATE",
                                           failedCheck + "(128)", failedCheck + "(255)"}));
    EXPECT_EQ(installation.records("datagram").size(), 2U) << "one of the service's, one of ours";
}

TEST(ServiceManager, ShowsStopPendingDuringThePauseAndRemovesARunningServiceWhenItStops) {
    const Installation installation;
    std::filesystem::remove(installation.companion());
    SupervisedService service(installation);
    service.start();
    installation.awaitLog(line::failed);
    EXPECT_EQ(runWord(installation, "service-remove"), 0);
    SERVICE_STATUS status{};
    EXPECT_EQ(control(SERVICE_CONTROL_STOP, &status), 0U);
    expectStatus(status, SERVICE_STOP_PENDING);
    EXPECT_TRUE(processRuns(service.processId(), installation.root()));
    const auto isForgotten = [] { return !openService() && ::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST; };
    EXPECT_TRUE(await(isForgotten));
    EXPECT_FALSE(processRuns(service.processId(), installation.root()));
}

} // namespace
} // namespace test
