#include "utl/utl_service.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <csignal>

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "utl/utl_service_platform.h"

namespace NS_UTL {
namespace {

using NS_CORE::ScopedServiceHandle;

// The numbers that the neutral sources use are the system's.
static_assert(ServiceType::Win32OwnProcess == SERVICE_WIN32_OWN_PROCESS);
static_assert(ServiceState::Stopped == SERVICE_STOPPED && ServiceState::StartPending == SERVICE_START_PENDING &&
              ServiceState::StopPending == SERVICE_STOP_PENDING && ServiceState::Running == SERVICE_RUNNING);
static_assert(ServiceAccept::Stop == SERVICE_ACCEPT_STOP && ServiceAccept::Shutdown == SERVICE_ACCEPT_SHUTDOWN);
static_assert(ServiceControl::Stop == SERVICE_CONTROL_STOP && ServiceControl::Pause == SERVICE_CONTROL_PAUSE &&
              ServiceControl::Continue == SERVICE_CONTROL_CONTINUE &&
              ServiceControl::Interrogate == SERVICE_CONTROL_INTERROGATE &&
              ServiceControl::Shutdown == SERVICE_CONTROL_SHUTDOWN);

constexpr std::string_view kInstall = "UTL::Service::install";
constexpr std::string_view kRemove = "UTL::Service::remove";

// The rights that removal has always requested. SERVICE_ALL_ACCESS would be more, and a hardened service may refuse
// those.
constexpr DWORD kRemovalRights = 0xF003F;

// Empty if the manager cannot be reached or does not grant all rights. Logs that under the name of the caller,
// `function`.
ScopedServiceHandle openManager(std::string_view function) {
    ScopedServiceHandle manager(
        ::OpenSCManagerA(/*lpMachineName=*/nullptr, /*lpDatabaseName=*/nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) service_platform::logManagerNotOpened(function);
    return manager;
}

// Console mode's handler, until one of the events below has called it or console mode has ended.
constinit std::atomic<Signal::Handler> g_consoleHandler{nullptr};

// The system calls this on a thread of its own. When this returns from an event that ends the console, the system ends
// the process at once; if it does not return, some seconds later (5 for a closed window). To return would cut the stop
// short, so this thread waits until the process ends by itself.
BOOL WINAPI endWithConsole(DWORD event) {
    if (event != CTRL_CLOSE_EVENT && event != CTRL_LOGOFF_EVENT && event != CTRL_SHUTDOWN_EVENT) return FALSE;
    const Signal::Handler handler = g_consoleHandler.exchange(nullptr);
    if (handler) handler(SIGBREAK); // otherwise an earlier event has called it, or console mode has just ended
    for (;;) ::Sleep(INFINITE);
}

// The system's side of the two callbacks, which have its calling convention.
void WINAPI enterControlHandler(DWORD control) {
    Service::controlHandler(control);
}

void WINAPI enterServiceMain(DWORD argc, char** argv) {
    Service::serviceMain(argc, argv);
}

bool dispatch(const char* serviceName) {
    std::string name = serviceName;
    std::array<SERVICE_TABLE_ENTRYA, 2> table = {};
    table[0] = {name.data(), &enterServiceMain};
    return ::StartServiceCtrlDispatcherA(table.data()) != 0;
}

ServiceManagerCalls::StatusHandle registerHandler(const char* serviceName) {
    return ::RegisterServiceCtrlHandlerA(serviceName, &enterControlHandler);
}

void reportStatus(ServiceManagerCalls::StatusHandle handle, const ServiceStatus& status) {
    SERVICE_STATUS record = {};
    record.dwServiceType = status.serviceType;
    record.dwCurrentState = status.currentState;
    record.dwControlsAccepted = status.controlsAccepted;
    record.dwWin32ExitCode = status.win32ExitCode;
    record.dwServiceSpecificExitCode = status.serviceSpecificExitCode;
    record.dwCheckPoint = status.checkPoint;
    record.dwWaitHint = status.waitHint;
    ::SetServiceStatus(static_cast<SERVICE_STATUS_HANDLE>(handle), &record);
}

bool installService(const std::string& name, const std::string& displayName, const std::string& executablePath) {
    const ScopedServiceHandle manager = openManager(kInstall);
    if (!manager) return false;
    // The path is registered as it is, without quotes.
    const ScopedServiceHandle service(::CreateServiceA(
        manager.get(), name.c_str(), displayName.c_str(), SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
        SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, executablePath.c_str(), /*lpLoadOrderGroup=*/nullptr,
        /*lpdwTagId=*/nullptr, /*lpDependencies=*/nullptr, /*lpServiceStartName=*/nullptr, /*lpPassword=*/nullptr));
    if (service) return true;
    const DWORD error = ::GetLastError();
    if (error == ERROR_SERVICE_EXISTS) return true;
    MLOG(Crit, kInstall, "failed to create service '%s': %s", name, NS_CORE::systemErrorText(error));
    return false;
}

bool removeService(const std::string& name) {
    const ScopedServiceHandle manager = openManager(kRemove);
    if (!manager) return false;
    const ScopedServiceHandle service(::OpenServiceA(manager.get(), name.c_str(), kRemovalRights));
    if (!service) {
        const DWORD error = ::GetLastError();
        MLOG(Crit, kRemove, "failed to open service '%s': %s", name, NS_CORE::systemErrorText(error));
        return false;
    }
    if (!::DeleteService(service.get())) {
        const DWORD error = ::GetLastError();
        MLOG(Crit, kRemove, "failed to delete service '%s': %s", name, NS_CORE::systemErrorText(error));
        return false;
    }
    return true;
}

} // namespace

int service_platform::runWithConsoleHandlers(Signal::Handler handler, const std::function<int()>& work) {
    const Signal interrupt(SIGINT, handler);
    const Signal terminate(SIGTERM, handler);
    const Signal consoleBreak(SIGBREAK, handler);
    g_consoleHandler = handler;
    // Called before the runtime's own handler, which takes these events for SIGBREAK but returns at once.
    ::SetConsoleCtrlHandler(&endWithConsole, /*Add=*/TRUE);
    const int result = work();
    // Not while endWithConsole waits: the system may hold its lock on the handlers for as long.
    if (g_consoleHandler.exchange(nullptr)) ::SetConsoleCtrlHandler(&endWithConsole, /*Add=*/FALSE);
    return result;
}

ServiceManagerCalls ServiceManagerCalls::platform() {
    return {&dispatch, &registerHandler, &reportStatus, &installService, &removeService};
}

} // namespace NS_UTL
