// What an administrator does with "sc config", which Wine's sc does not know: start type (its number) and account.

#include <windows.h>

#include <string>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_service.h"
#include "tests/support/child.h"

namespace {

const test::ChildProgram g_configures("service-config", [](const std::vector<std::string>& arguments) {
    const NS_CORE::ScopedServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const NS_CORE::ScopedServiceHandle service(
        ::OpenServiceW(manager.get(), setup::kServiceName, SERVICE_CHANGE_CONFIG));
    const auto start = static_cast<DWORD>(std::stoul(arguments.at(0)));
    const std::wstring account(arguments.at(1).begin(), arguments.at(1).end());
    const BOOL isDone = ::ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, start, SERVICE_NO_CHANGE, nullptr,
                                               nullptr, nullptr, nullptr, account.c_str(), nullptr, nullptr);
    return isDone ? 0 : static_cast<int>(::GetLastError());
});

} // namespace
