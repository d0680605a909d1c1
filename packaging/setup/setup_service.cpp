#include "packaging/setup/setup_service.h"

#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <array>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_files.h"
#include "packaging/setup/setup_text.h"

namespace setup {
namespace {

using NS_CORE::ScopedFileHandle;
using NS_CORE::ScopedKernelHandle;
using NS_CORE::ScopedRegistryKey;
using NS_CORE::ScopedServiceHandle;

constexpr DWORD kAfterwardsMs = 7000; // the service's own pause of five seconds, and a little
constexpr DWORD kProcessEndMs = 5000;
constexpr DWORD kPollMs = 50;

ScopedServiceHandle openService(DWORD rights) {
    const ScopedServiceHandle manager(
        ::OpenSCManagerW(/*lpMachineName=*/nullptr, /*lpDatabaseName=*/nullptr, SC_MANAGER_CONNECT));
    if (!manager) return ScopedServiceHandle();
    return ScopedServiceHandle(::OpenServiceW(manager.get(), kServiceName, rights));
}

SERVICE_STATUS_PROCESS statusOf(const ScopedServiceHandle& service) {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    ::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                           &needed);
    return status;
}

// The structure lies at the front of the buffer, and its texts behind it; empty on failure.
using ConfigBuffer = std::vector<BYTE>;
ConfigBuffer configOf(const ScopedServiceHandle& service) {
    DWORD needed = 0;
    ::QueryServiceConfigW(service.get(), /*lpServiceConfig=*/nullptr, 0, &needed);
    ConfigBuffer buffer(needed + sizeof(QUERY_SERVICE_CONFIGW));
    if (!::QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                               static_cast<DWORD>(buffer.size()), &needed))
        buffer.clear();
    return buffer;
}

ConfigBuffer optionalConfigOf(const ScopedServiceHandle& service, DWORD level) {
    DWORD needed = 0;
    constexpr DWORD kMost = 8192; // by the system's own limit
    ConfigBuffer buffer(kMost);
    if (!::QueryServiceConfig2W(service.get(), level, buffer.data(), kMost, &needed)) buffer.clear();
    return buffer;
}

std::wstring textOf(const wchar_t* text) {
    return text ? text : L"";
}

std::wstring programOf(const ScopedServiceHandle& service) {
    const ConfigBuffer config = configOf(service);
    if (config.empty()) return {};
    std::wstring program = textOf(reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(config.data())->lpBinaryPathName);
    if (!program.starts_with(L'"')) return program;
    program.erase(0, 1);
    program.resize(std::min(program.find(L'"'), program.size()));
    return program;
}

bool awaitStopped(const ScopedServiceHandle& service, DWORD limitMs) {
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
    const ScopedKernelHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE,
                                                   /*bInheritHandle=*/FALSE, id));
    if (!process || !isSamePath(imageOf(process.get()), program)) return;
    session.log(L"ending '" + program + L"', process " + std::to_wstring(id));
    if (!::TerminateProcess(process.get(), /*uExitCode=*/1))
        session.log(L"it cannot be ended: " + errorText(::GetLastError()));
    ::WaitForSingleObject(process.get(), kProcessEndMs);
}

// By the full path, because another installation's companion has the same name.
void endAll(const Session& session, const std::wstring& program) {
    const ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, /*th32ProcessID=*/0));
    if (!snapshot) return;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
        const std::wstring name = entry.szExeFile;
        if (program.size() > name.size() && isSamePath(program.substr(program.size() - name.size()), name))
            endProcess(session, entry.th32ProcessID, program);
    }
}

void requestStop(const Session& session, const ScopedServiceHandle& service) {
    SERVICE_STATUS status = {};
    session.log(L"asking the service to stop");
    if (::ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) return;
    const DWORD error = ::GetLastError();
    // It may be stopping or stopped already.
    if (error != ERROR_SERVICE_NOT_ACTIVE && error != ERROR_SERVICE_CANNOT_ACCEPT_CTRL)
        session.log(L"the request failed: " + errorText(error));
}

// Asks, waits, ends the companion that may hold the stop, waits again, and at last ends the service's own process.
bool stopService(const Session& session, const ScopedServiceHandle& service, const std::wstring& directory,
                 unsigned politeMs) {
    const SERVICE_STATUS_PROCESS status = statusOf(service);
    if (status.dwCurrentState == SERVICE_STOPPED) return true;
    const ScopedKernelHandle process(::OpenProcess(SYNCHRONIZE, /*bInheritHandle=*/FALSE, status.dwProcessId));
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

// Recovery

constexpr DWORD kMinuteMs = 60000;
constexpr DWORD kDaySeconds = 86400;

std::wstring recoveryCommand(const std::wstring& directory) {
    return L'"' + binDirectory(directory) + L"\\quorkeri_health.exe\" --recover";
}

// Whether nobody has set recovery actions, or the set ones are this product's: its own command in any directory, or the
// plain restarts of its earlier packages, after which the companion of the dead service still held the port.
bool mayReplaceRecovery(const ScopedServiceHandle& service) {
    const ConfigBuffer buffer = optionalConfigOf(service, SERVICE_CONFIG_FAILURE_ACTIONS);
    if (buffer.empty()) return true;
    const auto* actions = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW*>(buffer.data());
    if (actions->cActions == 0) return true;
    const std::wstring command = textOf(actions->lpCommand);
    const bool isRestartTwice =
        actions->cActions == 3 && actions->dwResetPeriod == kDaySeconds &&
        actions->lpsaActions[0].Type == SC_ACTION_RESTART && actions->lpsaActions[0].Delay == kMinuteMs &&
        actions->lpsaActions[1].Type == SC_ACTION_RESTART && actions->lpsaActions[1].Delay == kMinuteMs &&
        actions->lpsaActions[2].Type == SC_ACTION_NONE;
    return command.empty() ? isRestartTwice : command.ends_with(L"\\bin\\quorkeri_health.exe\" --recover");
}

void setRecovery(const Session& session, const ScopedServiceHandle& service, const std::wstring& directory) {
    if (!mayReplaceRecovery(service)) {
        session.log(L"the service has recovery actions of an administrator's; they stay");
        return;
    }
    std::array<SC_ACTION, 3> steps = {
        {{SC_ACTION_RUN_COMMAND, kMinuteMs}, {SC_ACTION_RUN_COMMAND, kMinuteMs}, {SC_ACTION_NONE, 0}}};
    std::wstring command = recoveryCommand(directory);
    SERVICE_FAILURE_ACTIONSW actions = {};
    actions.dwResetPeriod = kDaySeconds;
    actions.lpCommand = command.data();
    actions.cActions = static_cast<DWORD>(steps.size());
    actions.lpsaActions = steps.data();
    if (::ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions))
        session.log(L"recovery actions: " + command + L" after a minute, twice");
    else
        session.log(L"this system did not accept recovery actions: " + errorText(::GetLastError()));
}

// The other settings

bool changeConfig(const ScopedServiceHandle& service, DWORD startType, const wchar_t* program, const wchar_t* account) {
    return ::ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, startType, SERVICE_NO_CHANGE, program,
                                  /*lpLoadOrderGroup=*/nullptr, /*lpdwTagId=*/nullptr, /*lpDependencies=*/nullptr,
                                  account, /*lpPassword=*/nullptr, /*lpDisplayName=*/nullptr);
}

void setDelayed(const Session& session, const ScopedServiceHandle& service, bool isDelayed) {
    SERVICE_DELAYED_AUTO_START_INFO info = {isDelayed};
    if (::ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &info))
        session.log(isDelayed ? L"the service starts delayed" : L"the service starts without delay");
    else
        session.log(L"this system did not accept a delayed start: " + errorText(::GetLastError()));
}

void restoreSettings(const Session& session, const ScopedServiceHandle& service, const ServiceSettings& before,
                     const ServiceSettings& now) {
    if (before.startType == 0) return;
    if (before.startType != now.startType && !changeConfig(service, before.startType, nullptr, nullptr))
        session.log(L"the start type of before was not set again: " + errorText(::GetLastError()));
    if (before.isDelayed && !now.isDelayed) setDelayed(session, service, true);
    if (before.account != now.account && !changeConfig(service, SERVICE_NO_CHANGE, nullptr, before.account.c_str()))
        session.log(L"the account '" + before.account + L"' was not set again (" + errorText(::GetLastError()) +
                    L"); set it with sc config " + kServiceName + L" obj= ACCOUNT password= PASSWORD");
    if (!before.description.empty() && before.description != now.description) {
        std::wstring text = before.description;
        SERVICE_DESCRIPTIONW description = {text.data()};
        ::ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, &description);
    }
}

ServiceSettings settingsOf(const ScopedServiceHandle& service) {
    ServiceSettings settings;
    const ConfigBuffer config = configOf(service);
    if (config.empty()) return settings;
    const auto* values = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(config.data());
    settings.startType = values->dwStartType;
    settings.account = textOf(values->lpServiceStartName);
    const ConfigBuffer delayed = optionalConfigOf(service, SERVICE_CONFIG_DELAYED_AUTO_START_INFO);
    settings.isDelayed =
        !delayed.empty() && reinterpret_cast<const SERVICE_DELAYED_AUTO_START_INFO*>(delayed.data())->fDelayedAutostart;
    const ConfigBuffer description = optionalConfigOf(service, SERVICE_CONFIG_DESCRIPTION);
    if (!description.empty())
        settings.description = textOf(reinterpret_cast<const SERVICE_DESCRIPTIONW*>(description.data())->lpDescription);
    return settings;
}

// Windows Error Reporting

std::wstring dumpsKey(const wchar_t* program) {
    return std::wstring(L"SOFTWARE\\Microsoft\\Windows\\Windows Error Reporting\\LocalDumps\\") + program;
}

// Windows Error Reporting looks in the 64-bit view, also for a program of 32 bits.
ScopedRegistryKey openDumpsKey(const wchar_t* program) {
    HKEY key = nullptr;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, dumpsKey(program).c_str(), /*ulOptions=*/0, KEY_READ | KEY_WOW64_64KEY, &key);
    return ScopedRegistryKey(key);
}

LSTATUS setDumps(const wchar_t* program, const std::wstring& folder) {
    HKEY made = nullptr;
    LSTATUS error = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, dumpsKey(program).c_str(), /*Reserved=*/0,
                                      /*lpClass=*/nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE | KEY_WOW64_64KEY,
                                      /*lpSecurityAttributes=*/nullptr, &made, /*lpdwDisposition=*/nullptr);
    if (error) return error;
    const ScopedRegistryKey key(made);
    constexpr DWORD kFullDump = 2;
    constexpr DWORD kCount = 5;
    const auto setNumber = [&](const wchar_t* name, DWORD value) {
        if (!error)
            error = ::RegSetValueExW(key.get(), name, 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), sizeof(value));
    };
    setNumber(L"DumpType", kFullDump);
    setNumber(L"DumpCount", kCount);
    const size_t size = (folder.size() + 1) * sizeof(wchar_t);
    if (!error)
        error = ::RegSetValueExW(key.get(), L"DumpFolder", 0, REG_EXPAND_SZ,
                                 reinterpret_cast<const BYTE*>(folder.c_str()), static_cast<DWORD>(size));
    return error;
}

} // namespace

std::optional<Registration> registration() {
    const ScopedServiceHandle service = openService(SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS);
    if (!service) {
        if (::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) return std::nullopt;
        return Registration{};
    }
    Registration found;
    found.program = programOf(service);
    const DWORD state = statusOf(service).dwCurrentState;
    found.isRunning = state != SERVICE_STOPPED && state != SERVICE_STOP_PENDING;
    const ScopedServiceHandle changeable = openService(SERVICE_CHANGE_CONFIG);
    // Changes nothing; a service that waits for its deletion refuses even that.
    found.isMarkedForDeletion =
        changeable &&
        !::ChangeServiceConfigW(changeable.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, nullptr,
                                nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) &&
        ::GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
    return found;
}

bool stopEverything(const Session& session, const std::wstring& directory, unsigned politeMs) {
    const ScopedServiceHandle service = openService(SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_STOP);
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
    const ScopedServiceHandle service = openService(SERVICE_START);
    if (service && ::StartServiceW(service.get(), 0, /*lpServiceArgVectors=*/nullptr)) {
        session.log(L"the service was started again");
        return;
    }
    const DWORD error = ::GetLastError();
    if (error != ERROR_SERVICE_ALREADY_RUNNING) session.log(L"the service was not started again: " + errorText(error));
}

std::wstring ServiceSettings::toText() const {
    return startType ? std::to_wstring(startType) + L'|' + (isDelayed ? L"1|" : L"0|") + account + L'|' + description
                     : std::wstring();
}

ServiceSettings ServiceSettings::fromText(const std::wstring& text) {
    const std::vector<std::wstring> parts = splitData(text, /*count=*/4);
    ServiceSettings settings;
    if (parts[0].size() != 1) return settings; // a start type has one digit
    settings.startType = static_cast<DWORD>(parts[0][0] - L'0');
    settings.isDelayed = parts[1] == L"1";
    settings.account = parts[2];
    settings.description = parts[3];
    return settings;
}

ServiceSettings serviceSettings() {
    const ScopedServiceHandle service = openService(SERVICE_QUERY_CONFIG);
    return service ? settingsOf(service) : ServiceSettings();
}

bool configureService(const Session& session, const std::wstring& directory, const ServiceSettings& before,
                      std::optional<bool> isDelayed) {
    const ScopedServiceHandle service = openService(SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG | SERVICE_START);
    const std::wstring program = serviceProgram(directory);
    if (!service || (!isSamePath(programOf(service), program) &&
                     !changeConfig(service, SERVICE_NO_CHANGE, program.c_str(), nullptr))) {
        session.logError(L"The service '" + std::wstring(kServiceName) + L"' cannot be given the program '" + program +
                         L"': " + errorText(::GetLastError()) + L". Nothing was changed.");
        return false;
    }
    restoreSettings(session, service, before, settingsOf(service));
    if (isDelayed) setDelayed(session, service, *isDelayed);
    setRecovery(session, service, directory);
    return true;
}

void setErrorReportingDumps(const Session& session, const std::wstring& directory) {
    for (const wchar_t* program : {kServiceFile, kCompanionFile}) {
        if (openDumpsKey(program)) {
            session.log(L"Windows Error Reporting has settings for '" + std::wstring(program) +
                        L"' already; they stay");
            continue;
        }
        const LSTATUS error = setDumps(program, dumpsDirectory(directory));
        session.log(L"Windows Error Reporting keeps dumps of '" + std::wstring(program) + L"'" +
                    (error ? L" not: " + errorText(static_cast<DWORD>(error)) : std::wstring()));
    }
}

void clearErrorReportingDumps(const Session& session, const std::wstring& directory) {
    for (const wchar_t* program : {kServiceFile, kCompanionFile}) {
        ScopedRegistryKey key = openDumpsKey(program);
        wchar_t folder[1024] = {};
        DWORD size = sizeof(folder) - sizeof(wchar_t);
        if (!key ||
            ::RegGetValueW(key.get(), /*lpSubKey=*/nullptr, L"DumpFolder",
                           RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND,
                           /*pdwType=*/nullptr, folder, &size) ||
            !isSamePath(withoutSeparator(folder), dumpsDirectory(directory)))
            continue;
        key.reset();
        const LSTATUS error = ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, dumpsKey(program).c_str(), KEY_WOW64_64KEY, 0);
        session.log(L"Windows Error Reporting no longer keeps dumps of '" + std::wstring(program) + L"'" +
                    (error ? L": " + errorText(static_cast<DWORD>(error)) : std::wstring()));
    }
}

} // namespace setup
