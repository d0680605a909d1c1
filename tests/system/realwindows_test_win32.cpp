#include <gtest/gtest.h>
#include <windows.h>

#include <bit>
#include <set>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"
#include "tests/system/supervised_service.h"

// What only Windows itself can show. Under Wine each test skips and says what Wine lacks.
namespace test {
namespace {

using NS_CORE::ScopedKernelHandle;
using NS_CORE::ScopedRegistryKey;

constexpr std::chrono::seconds kLimit(60);

bool isWine() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

// A function that older systems do not have; null there.
template <class Function>
Function find(const wchar_t* module, const char* name) {
    return std::bit_cast<Function>(::GetProcAddress(::GetModuleHandleW(module), name));
}

#define SKIP_UNDER_WINE(reason) \
    if (isWine()) GTEST_SKIP() << reason

ScopedKernelHandle openProcess(uint32_t processId, DWORD access) {
    ScopedKernelHandle process(::OpenProcess(access, /*bInheritHandle=*/FALSE, processId));
    if (!process) failWithLastError("OpenProcess");
    return process;
}

// A thread of the process that jumps to where there is no code. The crash guard does not cover such a thread.
void crashInForeignThread(uint32_t processId) {
    const ScopedKernelHandle process = openProcess(processId, PROCESS_ALL_ACCESS);
    const auto nowhere = reinterpret_cast<LPTHREAD_START_ROUTINE>(uintptr_t{8});
    const ScopedKernelHandle thread(::CreateRemoteThread(process.get(), nullptr, 0, nowhere, nullptr, 0, nullptr));
    if (!thread) failWithLastError("CreateRemoteThread");
}

// The ids of the newest events of the System log that name the service, newest first.
std::set<DWORD> newestEvents(size_t looked) {
    using Log = NS_CORE::ScopedHandle<NS_CORE::Win32HandleTraits<HANDLE, &::CloseEventLog>>;
    const Log log(::OpenEventLogW(nullptr, L"System"));
    if (!log) failWithLastError("OpenEventLogW");
    std::set<DWORD> ids;
    alignas(EVENTLOGRECORD) static BYTE buffer[0x10000];
    DWORD bytes = 0;
    DWORD needed = 0;
    while (looked && ::ReadEventLogW(log.get(), EVENTLOG_BACKWARDS_READ | EVENTLOG_SEQUENTIAL_READ, 0, buffer,
                                     sizeof buffer, &bytes, &needed)) {
        for (DWORD at = 0; at < bytes && looked; --looked) {
            const auto* record = reinterpret_cast<const EVENTLOGRECORD*>(buffer + at);
            const auto* text = reinterpret_cast<const wchar_t*>(buffer + at + record->StringOffset);
            if (record->NumStrings && std::wstring(text) == L"Quorvane Keri Wrapper")
                ids.insert(record->EventID & 0xffff);
            at += record->Length;
        }
    }
    return ids;
}

// Dumps by Windows Error Reporting for the service's program, for the length of a test.
class LocalDumps {
public:
    explicit LocalDumps(const std::filesystem::path& directory) {
        HKEY key = nullptr;
        if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key,
                              nullptr))
            throw std::runtime_error("LocalDumps cannot be set");
        const ScopedRegistryKey owner(key);
        const std::wstring text = directory.wstring();
        const DWORD kMiniDump = 1;
        ::RegSetValueExW(key, L"DumpFolder", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                         static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
        ::RegSetValueExW(key, L"DumpType", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&kMiniDump), sizeof kMiniDump);
    }
    ~LocalDumps() { ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kKey, KEY_WOW64_64KEY, 0); }
    LocalDumps(const LocalDumps&) = delete;
    LocalDumps& operator=(const LocalDumps&) = delete;

private:
    static constexpr const wchar_t* kKey =
        L"SOFTWARE\\Microsoft\\Windows\\Windows Error Reporting\\LocalDumps\\quorkeri_service.exe";
};

TEST(RealWindows, KeepsDataFromBeingExecutedAndMovesTheProgram) {
    SKIP_UNDER_WINE("Wine reports no mitigations and loads every program at its preferred address");
    struct Policy {
        DWORD flags;
        BOOLEAN isPermanent;
    };
    using GetPolicy = BOOL(WINAPI*)(HANDLE, int, void*, SIZE_T);
    const auto getPolicy = find<GetPolicy>(L"kernel32.dll", "GetProcessMitigationPolicy");
    if (!getPolicy) GTEST_SKIP() << "This Windows is older than 8 and cannot be asked for its mitigations";
    const Installation installation;
    SupervisedService service(installation);
    service.start();
    const ScopedKernelHandle process = openProcess(service.processId(), PROCESS_QUERY_INFORMATION);
    constexpr int kDataExecution = 0;
    constexpr int kAddressSpaceLayout = 1;
    Policy dataExecution{};
    ASSERT_TRUE(getPolicy(process.get(), kDataExecution, &dataExecution, sizeof dataExecution));
    EXPECT_EQ(dataExecution.flags & 1U, 1U);
    DWORD layout = 0;
    ASSERT_TRUE(getPolicy(process.get(), kAddressSpaceLayout, &layout, sizeof layout));
    EXPECT_EQ(layout & 1U, 1U) << "bottom-up randomisation";
}

TEST(RealWindows, RefusesAUserWhoIsNoAdministrator) {
    SKIP_UNDER_WINE("Wine's service manager asks for no rights");
    HANDLE own = nullptr;
    ASSERT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_ALL_ACCESS, &own));
    const ScopedKernelHandle ownOwner(own);
    alignas(SID) BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    ASSERT_TRUE(::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size));
    SID_AND_ATTRIBUTES denied{administrators, 0};
    HANDLE restricted = nullptr;
    ASSERT_TRUE(::CreateRestrictedToken(own, DISABLE_MAX_PRIVILEGE, 1, &denied, 0, nullptr, 0, nullptr, &restricted));
    const ScopedKernelHandle restrictedOwner(restricted);

    const Installation installation;
    std::wstring line = L'"' + installation.program().wstring() + L"\" service-install";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    ASSERT_TRUE(::CreateProcessAsUserW(restricted, nullptr, line.data(), nullptr, nullptr, /*bInheritHandles=*/FALSE, 0,
                                       nullptr, nullptr, &startup, &started))
        << ::GetLastError();
    const ScopedKernelHandle process(started.hProcess);
    const ScopedKernelHandle thread(started.hThread);
    ::WaitForSingleObject(started.hProcess, INFINITE);
    DWORD exitCode = 0;
    ::GetExitCodeProcess(started.hProcess, &exitCode);
    EXPECT_EQ(exitCode, 1U);
    EXPECT_FALSE(openService());
    EXPECT_EQ(installation.log().at(0),
              "UTL::Service::install - failed to open service manager: " + systemText(ERROR_ACCESS_DENIED));
}

TEST(RealWindows, IsRecoveredByTheManagerThatNamesItsDeathInTheEventLog) {
    SKIP_UNDER_WINE("Wine neither stores recovery actions nor writes events");
    const Installation installation;
    SupervisedService service(installation);
    SC_ACTION action{SC_ACTION_RESTART, 1000};
    SERVICE_FAILURE_ACTIONSW actions{};
    actions.dwResetPeriod = 60;
    actions.cActions = 1;
    actions.lpsaActions = &action;
    ASSERT_TRUE(::ChangeServiceConfig2W(openInstalledService().get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions));
    service.start();
    const uint32_t first = service.processId();
    service.kill();
    const auto isRecovered = [&] {
        const SERVICE_STATUS_PROCESS status = statusOf(openInstalledService());
        return status.dwCurrentState == SERVICE_RUNNING && status.dwProcessId != 0 && status.dwProcessId != first;
    };
    EXPECT_TRUE(await(isRecovered, kLimit));
    constexpr DWORD kEndedAndIsRecovered = 7031;
    constexpr size_t kEnough = 200;
    EXPECT_TRUE(await([&] { return newestEvents(kEnough).contains(kEndedAndIsRecovered); }, kLimit));
    installation.endPrograms();
}

TEST(RealWindows, IsDumpedByErrorReportingWhereTheGuardDoesNotReach) {
    SKIP_UNDER_WINE("Wine has no Windows Error Reporting");
    const Installation installation;
    const std::filesystem::path dumps = installation.root() / "dumps";
    std::filesystem::create_directories(dumps);
    const LocalDumps localDumps(dumps);
    SupervisedService service(installation);
    service.start();
    crashInForeignThread(service.processId());
    const auto isDumped = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(dumps)) {
            if (entry.path().extension() == ".dmp" && entry.file_size() > 0) return true;
        }
        return false;
    };
    EXPECT_TRUE(await(isDumped, kLimit));
    // The reporter may still hold the file.
    EXPECT_TRUE(await([&] { return !processRuns(service.processId(), installation.root()); }, kLimit));
}

TEST(RealWindows, ReportsTheControlsThatTheManagerSendsAtShutdown) {
    const Installation installation;
    SupervisedService service(installation);
    service.start();
    installation.awaitRecord("ready");
    EXPECT_EQ(statusOf(openInstalledService()).dwControlsAccepted,
              DWORD{SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN});
    SERVICE_STATUS status{};
    EXPECT_FALSE(::ControlService(openInstalledService().get(), SERVICE_CONTROL_SHUTDOWN, &status));
    // Only the manager itself sends it, when the system really shuts down: the release checklist has that.
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    service.requestStop();
    service.awaitStopped();
}

} // namespace
} // namespace test
