#include "utl/utl_service.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "absl/base/const_init.h"
#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/files/core_dir.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket.h"
#include "core/text/core_checkf.h"
#include "utl/utl_filelogger.h"
#include "utl/utl_service_platform.h"

namespace NS_UTL {
namespace {

ABSL_CONST_INIT absl::Mutex g_instanceMutex(absl::kConstInit);
Service* g_instance ABSL_GUARDED_BY(g_instanceMutex) = nullptr;
int32_t g_instanceUsers ABSL_GUARDED_BY(g_instanceMutex) = 0;

// Keeps the process's Service from being destroyed while a callback of the system uses it. A handler can still run when
// the run callback has already returned: the handler's own stop request ended it.
class InstanceInUse {
public:
    InstanceInUse() {
        const absl::MutexLock lock(&g_instanceMutex);
        m_service = g_instance;
        if (m_service) ++g_instanceUsers;
    }
    ~InstanceInUse() {
        if (!m_service) return;
        const absl::MutexLock lock(&g_instanceMutex);
        --g_instanceUsers;
    }
    InstanceInUse(const InstanceInUse&) = delete;
    InstanceInUse& operator=(const InstanceInUse&) = delete;

    explicit operator bool() const { return m_service != nullptr; }
    Service* get() const { return m_service; }

private:
    Service* m_service;
};

void dropInstance() ABSL_EXCLUSIVE_LOCKS_REQUIRED(g_instanceMutex) {
    g_instance = nullptr;
    g_instanceMutex.Await(absl::Condition(+[](int32_t* users) { return *users == 0; }, &g_instanceUsers));
}

void setWorkingDirectoryToModule() {
    std::string directory;
    const bool isSet = NS_CORE::Dir::getModuleDir(directory) && NS_CORE::Dir::setCurrentDir(directory);
    static_cast<void>(CHECKF_AT("utl_service", 34, isSet, ""));
}

void setWorkingDirectoryByAnchor(const std::string& anchor) {
    const bool isSet = NS_CORE::Dir::setCurrentDirRelativeToModuleDir(anchor);
    static_cast<void>(CHECKF_AT("utl_service", 41, isSet, "%s", anchor));
}

} // namespace

void service_platform::logManagerNotOpened(std::string_view function) {
    const uint32_t error = NS_CORE::lastSystemError();
    MLOG(Warn, function, "failed to open service manager: %s", NS_CORE::systemErrorText(error));
}

Service::Service(const std::string& anchor, std::string name, std::string displayName, std::string logDirectory,
                 std::string logFileName, RunCallback run, StopCallback stop)
    : m_name(std::move(name)),
      m_displayName(std::move(displayName)),
      m_run(std::move(run)),
      m_stop(std::move(stop)),
      m_manager(ServiceManagerCalls::platform()) {
    {
        const absl::MutexLock lock(&g_instanceMutex);
        g_instance = this;
    }
    if (anchor.empty())
        setWorkingDirectoryToModule();
    else
        setWorkingDirectoryByAnchor(anchor);
    NS_CORE::MasterLogger::setImplementation(
        std::make_unique<FileLogger>(std::move(logDirectory), std::move(logFileName), kLogFileLimit, kLogFilesKept));
}

Service::~Service() {
    const absl::MutexLock lock(&g_instanceMutex);
    if (g_instance == this) dropInstance();
}

void Service::clearInstance() {
    const absl::MutexLock lock(&g_instanceMutex);
    dropInstance();
}

int Service::run(int argc, char** argv) {
    const Mode mode = modeOf(argc, argv);
    if (mode == Mode::Install) return runInstall();
    if (mode == Mode::Remove) return runRemove();
    return runService(/*asService=*/mode == Mode::Service, argc, argv);
}

Service::Mode Service::modeOf(int argc, char** argv) {
    if (argc < 2) return Mode::Service;
    if (argv[1] == kInstallWord) return Mode::Install;
    if (argv[1] == kRemoveWord) return Mode::Remove;
    return std::find(argv, argv + argc, kConsoleWord) != argv + argc ? Mode::Console : Mode::Service;
}

bool Service::install(const std::string& name, const std::string& displayName, const std::string& executablePath) {
    return m_manager.install(name, displayName, executablePath);
}

bool Service::remove() {
    return m_manager.remove(m_name);
}

int Service::runInstall() {
    std::string path;
    const bool hasPath = NS_CORE::Dir::getModuleFilename(path);
    if (!CHECKF_AT("utl_service", 70, hasPath, "")) return 1;
    if (!install(m_name, m_displayName, path)) {
        MLOG(Warn, "UTL::Service::run", "failed to install service '%s' running '%s'", m_name, path);
        return 1;
    }
    MLOG(Info, "UTL::Service::run", "installed service '%s' running '%s'", m_name, path);
    return 0;
}

int Service::runRemove() {
    if (!remove()) {
        MLOG(Warn, "UTL::Service::run", "failed to remove service '%s'", m_name);
        return 1;
    }
    MLOG(Info, "UTL::Service::run", "removed service '%s'", m_name);
    return 0;
}

int Service::runService(bool asService, int argc, char** argv) {
    if (!asService) return runInConsole(argc, argv);
    if (m_manager.runDispatcher(m_name.c_str())) return 0;
    const uint32_t error = NS_CORE::lastSystemError();
    // The misspelling stays: administrators search their logs for it.
    MLOG(Crit, "UTL::Service::runService", "failed to start service control dispather for '%s': %s", m_name,
         NS_CORE::systemErrorText(error));
    return 1;
}

int Service::runInConsole(int argc, char** argv) {
    MLOG(Norm, "UTL::Service::runService", "running '%s' in console", m_name);
    return service_platform::runWithConsoleHandlers(&Service::signalHandler, [&] { return m_run(argc, argv); });
}

void Service::requestStop() {
    if (m_stop) m_stop();
}

void Service::signalHandler(int signum) {
    const InstanceInUse instance;
    if (!CHECKF_AT("utl_service", 119, static_cast<bool>(instance), "")) return;
    MLOG(Info, "UTL::Service::signalHandler", "%d", signum);
    instance.get()->requestStop();
}

void Service::serviceMain(uint32_t argc, char** argv) {
    const InstanceInUse instance;
    if (!CHECKF_AT("utl_service_win32", 192, static_cast<bool>(instance), "")) return;
    instance.get()->runAsService(static_cast<int>(argc), argv);
}

void Service::runAsService(int argc, char** argv) {
    // In service mode exit handlers run on the dispatcher's thread while other threads may still use sockets, so the
    // socket library is not cleaned up.
    NS_CORE::setWinsockCleanupAtExit(false);
    m_status.begin();
    MLOG(Info, "UTL::Service::serviceMain", "RegisterServiceCtrlHandler");
    m_statusHandle = m_manager.registerControlHandler(m_name.c_str());
    if (!m_statusHandle) {
        const uint32_t error = NS_CORE::lastSystemError();
        MLOG(Crit, "UTL::Service::serviceMain", "failed to register control handler for '%s': %s", m_name,
             NS_CORE::systemErrorText(error));
        return;
    }
    m_status.connect([this](const ServiceStatus& status) { m_manager.setStatus(m_statusHandle, status); });
    m_status.enter(ServiceState::StartPending);
    m_status.enter(ServiceState::Running);
    MLOG(Info, "UTL::Service::serviceMain", "==== Start '%s'", m_name);
    const int result = m_run(argc, argv);
    MLOG(Info, "UTL::Service::serviceMain", "==== Completed '%s'", m_name);
    m_status.enterStopped(static_cast<uint32_t>(result));
}

void Service::controlHandler(uint32_t control) {
    const InstanceInUse instance;
    if (!CHECKF_AT("utl_service_win32", 141, static_cast<bool>(instance), "")) return;
    instance.get()->control(control);
}

void Service::control(uint32_t control) {
    constexpr std::string_view kFunction = "UTL::Service::controlHandler";
    switch (control) {
        case ServiceControl::Stop:
            MLOG(Info, kFunction, "SERVICE_CONTROL_STOP");
            requestStop();
            m_status.enter(ServiceState::StopPending);
            return;
        case ServiceControl::Shutdown:
            MLOG(Info, kFunction, "SERVICE_CONTROL_SHUTDOWN");
            requestStop();
            m_status.enter(ServiceState::StopPending);
            return;
        case ServiceControl::Pause:
            MLOG(Info, kFunction, "SERVICE_CONTROL_PAUSE");
            static_cast<void>(CHECKF_AT("utl_service_win32", 166, false, ""));
            break;
        case ServiceControl::Continue:
            MLOG(Info, kFunction, "SERVICE_CONTROL_CONTINUE");
            static_cast<void>(CHECKF_AT("utl_service_win32", 172, false, ""));
            break;
        case ServiceControl::Interrogate:
            MLOG(Info, kFunction, "SERVICE_CONTROL_INTERROGATE");
            break;
        default:
            static_cast<void>(CHECKF_AT("utl_service_win32", 180, false, "%u", control));
            break;
    }
    m_status.repeat();
}

} // namespace NS_UTL
