#include "packaging/setup/setup_service.h"

#include <windows.h>

#include <tlhelp32.h>

#include <array>
#include <vector>

#include "core/memory/core_scopedhandle.h"
#include "packaging/setup/setup_files.h"

namespace setup {
namespace {

struct ScHandleTraits {
    using Value = SC_HANDLE;
    static Value empty() { return nullptr; }
    static void close(Value value) { ::CloseServiceHandle(value); }
};
using ScopedScHandle = NS_CORE::ScopedHandle<ScHandleTraits>;

struct ProcessTraits {
    using Value = HANDLE;
    static Value empty() { return nullptr; }
    static void close(Value value) { ::CloseHandle(value); }
};
using ScopedProcess = NS_CORE::ScopedHandle<ProcessTraits>;

struct SnapshotTraits {
    using Value = HANDLE;
    static Value empty() { return INVALID_HANDLE_VALUE; }
    static void close(Value value) { ::CloseHandle(value); }
};
using ScopedSnapshot = NS_CORE::ScopedHandle<SnapshotTraits>;

constexpr DWORD kAfterwardsMs = 7000; // the service's own pause of five seconds, and a little
constexpr DWORD kProcessEndMs = 5000;
constexpr DWORD kPollMs = 50;

ScopedScHandle openService(DWORD rights) {
    const ScopedScHandle manager(
        ::OpenSCManagerW(/*lpMachineName=*/nullptr, /*lpDatabaseName=*/nullptr, SC_MANAGER_CONNECT));
    if (!manager) return ScopedScHandle();
    return ScopedScHandle(::OpenServiceW(manager.get(), kServiceName, rights));
}

SERVICE_STATUS_PROCESS statusOf(const ScopedScHandle& service) {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    ::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                           &needed);
    return status;
}

std::wstring programOf(const ScopedScHandle& service) {
    DWORD needed = 0;
    ::QueryServiceConfigW(service.get(), /*lpServiceConfig=*/nullptr, 0, &needed);
    std::vector<BYTE> buffer(needed + sizeof(QUERY_SERVICE_CONFIGW));
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    if (!::QueryServiceConfigW(service.get(), config, static_cast<DWORD>(buffer.size()), &needed)) return {};
    std::wstring program = config->lpBinaryPathName ? config->lpBinaryPathName : L"";
    if (!program.starts_with(L'"')) return program;
    program.erase(0, 1);
    program.resize(std::min(program.find(L'"'), program.size()));
    return program;
}

bool awaitStopped(const ScopedScHandle& service, DWORD limitMs) {
    const ULONGLONG end = ::GetTickCount64() + limitMs;
    for (;;) {
        if (statusOf(service).dwCurrentState == SERVICE_STOPPED) return true;
        if (::GetTickCount64() >= end) return false;
        ::Sleep(kPollMs);
    }
}

std::wstring imageOf(HANDLE process) {
    wchar_t buffer[1024] = {};
    DWORD length = ARRAYSIZE(buffer);
    return ::QueryFullProcessImageNameW(process, /*dwFlags=*/0, buffer, &length) ? std::wstring(buffer, length) : L"";
}

// Ends this one process if it runs this very file, and waits until it is gone.
void endProcess(const Session& session, DWORD id, const std::wstring& program) {
    const ScopedProcess process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE,
                                              /*bInheritHandle=*/FALSE, id));
    if (!process || !isSamePath(imageOf(process.get()), program)) return;
    session.log(L"ending '" + program + L"', process " + std::to_wstring(id));
    if (!::TerminateProcess(process.get(), /*uExitCode=*/1))
        session.log(L"it cannot be ended: " + errorText(::GetLastError()));
    ::WaitForSingleObject(process.get(), kProcessEndMs);
}

// By the full path, because another installation's companion has the same name.
void endAll(const Session& session, const std::wstring& program) {
    const ScopedSnapshot snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, /*th32ProcessID=*/0));
    if (!snapshot) return;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
        const std::wstring name = entry.szExeFile;
        if (program.size() > name.size() && isSamePath(program.substr(program.size() - name.size()), name))
            endProcess(session, entry.th32ProcessID, program);
    }
}

void requestStop(const Session& session, const ScopedScHandle& service) {
    SERVICE_STATUS status = {};
    session.log(L"asking the service to stop");
    if (::ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) return;
    const DWORD error = ::GetLastError();
    // It may be stopping or stopped already.
    if (error != ERROR_SERVICE_NOT_ACTIVE && error != ERROR_SERVICE_CANNOT_ACCEPT_CTRL)
        session.log(L"the request failed: " + errorText(error));
}

// Asks, waits, ends the companion that may hold the stop, waits again, and at last ends the service's own process.
bool stopService(const Session& session, const ScopedScHandle& service, const std::wstring& directory,
                 unsigned politeMs) {
    const SERVICE_STATUS_PROCESS status = statusOf(service);
    if (status.dwCurrentState == SERVICE_STOPPED) return true;
    const ScopedProcess process(::OpenProcess(SYNCHRONIZE, /*bInheritHandle=*/FALSE, status.dwProcessId));
    requestStop(session, service);
    bool isStopped = awaitStopped(service, politeMs);
    if (!isStopped) {
        session.log(L"the service waits for its companion");
        endAll(session, companionProgram(directory));
        isStopped = awaitStopped(service, kAfterwardsMs);
    }
    if (!isStopped) {
        endProcess(session, status.dwProcessId, serviceProgram(directory));
        isStopped = awaitStopped(service, kProcessEndMs) || !process ||
                    ::WaitForSingleObject(process.get(), /*dwMilliseconds=*/0) == WAIT_OBJECT_0;
    }
    // The manager says "stopped" a moment before the process is gone.
    if (isStopped && process) ::WaitForSingleObject(process.get(), kProcessEndMs);
    return isStopped;
}

} // namespace

std::optional<Registration> registration() {
    const ScopedScHandle service = openService(SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS);
    if (!service) {
        if (::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) return std::nullopt;
        return Registration{};
    }
    Registration found;
    found.program = programOf(service);
    const DWORD state = statusOf(service).dwCurrentState;
    found.isRunning = state != SERVICE_STOPPED && state != SERVICE_STOP_PENDING;
    const ScopedScHandle changeable = openService(SERVICE_CHANGE_CONFIG);
    // Changes nothing; a service that waits for its deletion refuses even that.
    found.isMarkedForDeletion =
        changeable &&
        !::ChangeServiceConfigW(changeable.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, nullptr,
                                nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) &&
        ::GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
    return found;
}

bool stopEverything(const Session& session, const std::wstring& directory, unsigned politeMs) {
    const ScopedScHandle service = openService(SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_STOP);
    bool isStopped = true;
    if (service && isSamePath(programOf(service), serviceProgram(directory)))
        isStopped = stopService(session, service, directory, politeMs);
    // Also one that a service left behind which was killed.
    endAll(session, companionProgram(directory));
    if (isStopped) return true;
    session.logError(L"The service '" + std::wstring(kServiceName) +
                     L"' does not stop. End its process in the task manager and start again. Nothing was changed.");
    return false;
}

void startAgain(const Session& session) {
    const ScopedScHandle service = openService(SERVICE_START);
    if (service && ::StartServiceW(service.get(), 0, /*lpServiceArgVectors=*/nullptr)) {
        session.log(L"the service was started again");
        return;
    }
    const DWORD error = ::GetLastError();
    if (error != ERROR_SERVICE_ALREADY_RUNNING) session.log(L"the service was not started again: " + errorText(error));
}

void setRecovery(const Session& session) {
    const ScopedScHandle service = openService(SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG | SERVICE_START);
    if (!service) {
        session.log(L"no recovery actions: " + errorText(::GetLastError()));
        return;
    }
    std::array<BYTE, 1024> buffer = {};
    DWORD needed = 0;
    if (::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(),
                               static_cast<DWORD>(buffer.size()), &needed) &&
        reinterpret_cast<const SERVICE_FAILURE_ACTIONSW*>(buffer.data())->cActions > 0) {
        session.log(L"the service has recovery actions already; they stay");
        return;
    }
    constexpr DWORD kMinuteMs = 60000;
    constexpr DWORD kDaySeconds = 86400;
    std::array<SC_ACTION, 3> steps = {
        {{SC_ACTION_RESTART, kMinuteMs}, {SC_ACTION_RESTART, kMinuteMs}, {SC_ACTION_NONE, 0}}};
    SERVICE_FAILURE_ACTIONSW actions = {};
    actions.dwResetPeriod = kDaySeconds;
    actions.cActions = static_cast<DWORD>(steps.size());
    actions.lpsaActions = steps.data();
    if (::ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions))
        session.log(L"recovery actions: restart after a minute, twice");
    else
        session.log(L"this system took no recovery actions: " + errorText(::GetLastError()));
}

} // namespace setup
