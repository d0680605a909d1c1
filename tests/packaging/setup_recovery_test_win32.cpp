// Whose recovery actions an upgrade replaces. Windows stores them and returns them. Wine accepts them, stores nothing
// and refuses the question; there, and only there, the hooks answer for the manager.

#include <gtest/gtest.h>
#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <optional>
#include <string>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_service.h"
#include "tests/support/import_hook_win32.h"

namespace {

struct Recovery {
    DWORD resetSeconds = 0;
    std::wstring command;
    std::vector<std::pair<SC_ACTION_TYPE, DWORD>> steps; // with the delay in milliseconds

    bool operator==(const Recovery&) const = default;
};

std::optional<Recovery> g_stored; // what a manager that stores nothing was given
std::vector<SC_ACTION> g_steps;   // behind the structure that the hook returns
decltype(&::ChangeServiceConfig2W) g_change = nullptr;
decltype(&::QueryServiceConfig2W) g_query = nullptr;

Recovery recoveryFrom(const SERVICE_FAILURE_ACTIONSW& actions) {
    Recovery recovery{actions.dwResetPeriod, actions.lpCommand ? actions.lpCommand : L"", {}};
    for (DWORD i = 0; i < actions.cActions; ++i)
        recovery.steps.emplace_back(actions.lpsaActions[i].Type, actions.lpsaActions[i].Delay);
    return recovery;
}

SERVICE_FAILURE_ACTIONSW structureOf(Recovery& recovery) {
    g_steps.clear();
    for (const auto& [type, delay] : recovery.steps) g_steps.push_back({type, delay});
    return {recovery.resetSeconds, /*lpRebootMsg=*/nullptr, recovery.command.data(), static_cast<DWORD>(g_steps.size()),
            g_steps.data()};
}

BOOL WINAPI changeAndStore(SC_HANDLE service, DWORD level, void* info) {
    const BOOL isDone = g_change(service, level, info);
    if (isDone && level == SERVICE_CONFIG_FAILURE_ACTIONS)
        g_stored = recoveryFrom(*static_cast<SERVICE_FAILURE_ACTIONSW*>(info));
    return isDone;
}

BOOL WINAPI queryOrRecall(SC_HANDLE service, DWORD level, BYTE* buffer, DWORD size, DWORD* needed) {
    if (g_query(service, level, buffer, size, needed)) return TRUE;
    if (::GetLastError() != ERROR_INVALID_LEVEL || level != SERVICE_CONFIG_FAILURE_ACTIONS || !g_stored) return FALSE;
    *reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer) = structureOf(*g_stored);
    return TRUE;
}

// No installation runs that could log anything.
MSIHANDLE WINAPI makeNoRecord(UINT /*fields*/) {
    return 0;
}

// The service is registered, and does not run.
class SetupRecovery : public testing::Test {
protected:
    SetupRecovery() {
        g_change = m_change.original();
        g_query = m_query.original();
    }
    ~SetupRecovery() override { ::DeleteService(m_service.get()); }

    void set(Recovery recovery) {
        SERVICE_FAILURE_ACTIONSW actions = structureOf(recovery);
        ASSERT_TRUE(::ChangeServiceConfig2W(m_service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions));
    }

    Recovery afterSetup() {
        EXPECT_TRUE(setup::configureService(setup::Session(0), kDirectory, setup::ServiceSettings(), std::nullopt));
        std::vector<BYTE> buffer(8192);
        DWORD needed = 0;
        EXPECT_TRUE(::QueryServiceConfig2W(m_service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(),
                                           static_cast<DWORD>(buffer.size()), &needed));
        return recoveryFrom(*reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer.data()));
    }

    static constexpr const wchar_t* kDirectory = LR"(C:\Quorkeri)";

private:
    test::ImportHook<decltype(::MsiCreateRecord)> m_record{"MsiCreateRecord", &makeNoRecord};
    test::ImportHook<decltype(::ChangeServiceConfig2W)> m_change{"ChangeServiceConfig2W", &changeAndStore};
    test::ImportHook<decltype(::QueryServiceConfig2W)> m_query{"QueryServiceConfig2W", &queryOrRecall};
    NS_CORE::ScopedServiceHandle m_manager{::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    NS_CORE::ScopedServiceHandle m_service{
        ::CreateServiceW(m_manager.get(), setup::kServiceName, /*lpDisplayName=*/nullptr, SERVICE_ALL_ACCESS,
                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                         LR"(C:\Quorkeri\bin\quorkeri_service.exe)", nullptr, nullptr, nullptr, nullptr, nullptr)};
};

TEST_F(SetupRecovery, ReplacesItsOwnAndKeepsAnAdministrators) {
    constexpr DWORD kDay = 86400;
    constexpr std::pair kRun(SC_ACTION_RUN_COMMAND, DWORD{60000});
    constexpr std::pair kRestart(SC_ACTION_RESTART, DWORD{60000});
    constexpr std::pair kNothing(SC_ACTION_NONE, DWORD{0});
    const Recovery ours{kDay, LR"("C:\Quorkeri\bin\quorkeri_health.exe" --recover)", {kRun, kRun, kNothing}};
    EXPECT_EQ(afterSetup(), ours) << "nobody has set any";
    EXPECT_EQ(afterSetup(), ours) << "the same version again";
    struct Row {
        const char* what;
        Recovery before;
        bool stays;
    };
    for (const auto& [what, before, stays] : {
             Row{"another directory's", {kDay, LR"("D:\K\bin\quorkeri_health.exe" --recover)", ours.steps}, false},
             Row{"version 1.1's", {kDay, L"", {kRestart, kRestart, kNothing}}, false},
             Row{"1.1's, and one more restart", {kDay, L"", {kRestart, kRestart, kRestart}}, true},
             Row{"1.1's with another period", {60, L"", {kRestart, kRestart, kNothing}}, true},
             Row{"an early restart", {kDay, L"", {{SC_ACTION_RESTART, 5000}}}, true},
             Row{"a command", {kDay, LR"(C:\Tools\page-me.exe)", {kRun}}, true},
         }) {
        set(before);
        EXPECT_EQ(afterSetup(), stays ? before : ours) << what;
    }
}

} // namespace
