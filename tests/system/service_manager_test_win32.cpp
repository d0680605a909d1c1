#include <gtest/gtest.h>

#include <memory>
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

using std::chrono::seconds;

constexpr const char* kInstalledHead = "UTL::Service::run - installed service 'quorkeri_service.exe' running '";

// A program of the installation with one word; its exit code.
int64_t runWord(const Installation& installation, const std::string& word) {
    Process process(installation.program(), {word}, installation.output());
    const auto code = process.awaitExit(seconds(60));
    EXPECT_TRUE(code.has_value()) << word;
    return code.value_or(-1);
}

std::string narrow(const wchar_t* text) {
    return text ? pathText(std::filesystem::path(text)) : "";
}

// What the manager has stored; the buffer holds the texts.
struct Configuration {
    alignas(QUERY_SERVICE_CONFIGW) char bytes[8192] = {};
    const QUERY_SERVICE_CONFIGW& operator*() const { return *reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(bytes); }
    const QUERY_SERVICE_CONFIGW* operator->() const { return &**this; }
};

void readConfiguration(Configuration* out) {
    DWORD needed = 0;
    if (!::QueryServiceConfigW(openInstalledService().get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(out->bytes),
                               sizeof(out->bytes), &needed)) {
        failWithLastError("QueryServiceConfigW");
    }
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
        Configuration stored;
        readConfiguration(&stored);
        EXPECT_EQ(stored->dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
        EXPECT_EQ(stored->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
        EXPECT_EQ(stored->dwErrorControl, static_cast<DWORD>(SERVICE_ERROR_NORMAL));
        EXPECT_EQ(stored->dwTagId, 0U);
        // As obtained: not quoted, no arguments.
        EXPECT_EQ(narrow(stored->lpBinaryPathName), program);
        EXPECT_EQ(narrow(stored->lpServiceStartName), "LocalSystem");
        EXPECT_EQ(narrow(stored->lpDisplayName), "Quorvane Keri Wrapper");
        EXPECT_EQ(narrow(stored->lpLoadOrderGroup), "");
        EXPECT_EQ(narrow(stored->lpDependencies), "");

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

TEST(ServiceManager, ReportsARemovalThatTheManagerRefuses) {
    const Installation installation;
    ASSERT_EQ(runWord(installation, "service-install"), 0);
    const ServiceHandle held = openInstalledService();
    EXPECT_EQ(runWord(installation, "service-remove"), 0);
    // Somebody holds it open, a console for example: it is only marked.
    EXPECT_EQ(runWord(installation, "service-remove"), 1);
    EXPECT_EQ(runWord(installation, "service-install"), 1);
    const std::string marked = systemText(ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(
        installation.log(),
        (std::vector<std::string>{kInstalledHead + pathText(installation.program()) + "'",
                                  "UTL::Service::run - removed service 'quorkeri_service.exe'",
                                  "UTL::Service::remove - failed to delete service 'quorkeri_service.exe': " + marked,
                                  "UTL::Service::run - failed to remove service 'quorkeri_service.exe'",
                                  "UTL::Service::install - failed to create service 'quorkeri_service.exe': " + marked,
                                  "UTL::Service::run - failed to install service 'quorkeri_service.exe' running '" +
                                      pathText(installation.program()) + "'"}));
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
    const std::vector<std::string> expected = SupervisedService::wholeLog(
        {"UTL::Service::controlHandler - SERVICE_CONTROL_INTERROGATE", failedCheck + "(128)", failedCheck + "(255)"});
    EXPECT_EQ(installation.log(), expected);
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
    EXPECT_TRUE(await(isForgotten, seconds(60)));
    EXPECT_FALSE(processRuns(service.processId(), installation.root()));
}

TEST(ServiceManager, SaysWhichLibraryAnotherProgramHoldsOpen) {
    const Installation installation;
    SupervisedService service(installation);
    service.start();
    installation.awaitRecord("ready");
    service.requestStop();
    service.awaitStopped();
    installation.clearTraces();

    // Another companion, left running from elsewhere, holds the second library.
    const Installation other("elsewhere");
    registerKeri(installation.root(), pathText(installation.keri()));
    other.setCompanion("mute\nhold " + pathText(installation.bin() / "DHS.dll"));
    Process holder(other.companion(), {}, other.output());
    other.awaitRecord("ready");
    service.start();
    installation.awaitRecord("ready");
    service.requestStop();
    service.awaitStopped();
    const std::string bin = pathText(installation.bin());
    const std::vector<std::string> expected = SupervisedService::wholeLog(
        {"UTL::FileUtils::copy - failed opening '" + bin + "\\DHS.dll' for writing",
         "CopyDependencies - Failed copying 'DHS.dll' from '" + pathText(installation.keri()) + "' to '" + bin + "'"});
    EXPECT_EQ(installation.log(), expected);
    holder.end();
}

// Wine's manager takes ten seconds to find out that it started nothing, so all such words are tried at the same time.
TEST(ServiceManager, IsMissedByAProgramStartedFromAPrompt) {
    const std::vector<std::vector<std::string>> lines = {
        {}, {"unknown"}, {"word", "service-install"}, {"word", "service-remove"}, {"SERVICE-INSTALL"}};
    std::vector<std::unique_ptr<Installation>> installations;
    std::vector<std::unique_ptr<Process>> processes;
    for (const std::vector<std::string>& words : lines) {
        installations.push_back(std::make_unique<Installation>());
        processes.push_back(
            std::make_unique<Process>(installations.back()->program(), words, installations.back()->output()));
    }
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(processes[i]->awaitExit(seconds(60)), 1);
        EXPECT_EQ(installations[i]->log(),
                  std::vector<std::string>{"UTL::Service::runService - failed to start service control dispather for "
                                           "'quorkeri_service.exe': " +
                                           systemText(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT)});
        EXPECT_TRUE(installations[i]->records("started").empty());
    }
    EXPECT_FALSE(openService());
}

} // namespace
} // namespace test
