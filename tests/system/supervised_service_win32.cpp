#include <stdexcept>

#include "tests/system/await.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"
#include "tests/system/supervised_service.h"

namespace test {

SupervisedService::SupervisedService(const Installation& installation) : m_installation(installation) {
    // An earlier test that was ended from outside may have left it.
    removeLeftService();
    Process install(installation.program(), {"service-install"}, installation.output());
    if (install.awaitExit() != 0) throw std::runtime_error("service-install failed");
    std::filesystem::remove(installation.logFile());
}

SupervisedService::~SupervisedService() {
    try {
        if (m_processId) endProcess(m_processId, m_installation.root());
        removeLeftService();
    } catch (const std::exception&) {
        // The test has failed already, and the next one tries again.
    }
}

void SupervisedService::start() {
    const ServiceHandle service = openInstalledService();
    if (!::StartServiceW(service.get(), 0, nullptr)) failWithLastError("StartServiceW");
    const auto isRunning = [&] { return statusOf(service).dwCurrentState == SERVICE_RUNNING; };
    if (!await(isRunning)) throw std::runtime_error("The service does not run");
    m_processId = statusOf(service).dwProcessId;
    // A service that the manager only believes to run would let later checks pass for the wrong reason.
    if (!processRuns(m_processId, m_installation.root())) throw std::runtime_error("The service has no process");
}

void SupervisedService::requestStop() {
    const ServiceHandle service = openInstalledService();
    SERVICE_STATUS status{};
    if (!::ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) failWithLastError("ControlService");
}

bool SupervisedService::hasStopped() {
    return statusOf(openInstalledService()).dwCurrentState == SERVICE_STOPPED;
}

void SupervisedService::awaitStopped() {
    const ServiceHandle service = openInstalledService();
    const auto isStopped = [&] { return statusOf(service).dwCurrentState == SERVICE_STOPPED; };
    if (!await(isStopped)) {
        throw std::runtime_error("The service did not stop; its state is " +
                                 std::to_string(statusOf(service).dwCurrentState));
    }
    const SERVICE_STATUS_PROCESS status = statusOf(service);
    if (status.dwWin32ExitCode != 0 || status.dwServiceSpecificExitCode != 0)
        throw std::runtime_error("The service stopped with " + std::to_string(status.dwWin32ExitCode));
    const auto isGone = [this] { return !processRuns(m_processId, m_installation.root()); };
    if (!await(isGone)) throw std::runtime_error("The stopped service's process stays");
}

void SupervisedService::kill() {
    endProcess(m_processId, m_installation.root());
    const auto isGone = [this] { return !processRuns(m_processId, m_installation.root()); };
    if (!await(isGone)) throw std::runtime_error("The process cannot be ended");
}

std::vector<std::string> SupervisedService::wholeLog(const std::vector<std::string>& between) {
    std::vector<std::string> lines{"UTL::Service::serviceMain - RegisterServiceCtrlHandler",
                                   "UTL::Service::serviceMain - ==== Start 'quorkeri_service.exe'", line::running,
                                   line::copying};
    lines.insert(lines.end(), between.begin(), between.end());
    lines.insert(lines.end(), {"UTL::Service::controlHandler - SERVICE_CONTROL_STOP", line::stop,
                               "UTL::Service::serviceMain - ==== Completed 'quorkeri_service.exe'"});
    return lines;
}

} // namespace test
