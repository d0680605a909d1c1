#include "tests/system/service_manager_win32.h"

#include <stdexcept>

#include "tests/system/await.h"
#include "tests/system/platform.h"

namespace test {
namespace {

constexpr const wchar_t* kName = L"quorkeri_service.exe";

} // namespace

void failWithLastError(const std::string& call) {
    const DWORD code = ::GetLastError();
    throw std::runtime_error(call + ": " + std::to_string(code) + ' ' + systemText(code));
}

ServiceHandle openManager() {
    ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) failWithLastError("OpenSCManagerW");
    return manager;
}

ServiceHandle openService() {
    return ServiceHandle(::OpenServiceW(openManager().get(), kName, SERVICE_ALL_ACCESS));
}

ServiceHandle openInstalledService() {
    ServiceHandle service = openService();
    if (!service) failWithLastError("OpenServiceW");
    return service;
}

ServiceConfiguration::ServiceConfiguration(const ServiceHandle& service) {
    DWORD needed = 0;
    if (!::QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(m_bytes), sizeof m_bytes,
                               &needed))
        failWithLastError("QueryServiceConfigW");
}

SERVICE_STATUS_PROCESS statusOf(const ServiceHandle& service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                                &needed)) {
        failWithLastError("QueryServiceStatusEx");
    }
    return status;
}

void removeLeftService() {
    ServiceHandle service = openService();
    if (!service) return;
    const SERVICE_STATUS_PROCESS status = statusOf(service);
    // Whatever installation it belongs to: the service's name is this product's.
    if (status.dwProcessId) {
        const NS_CORE::ScopedKernelHandle process(
            ::OpenProcess(PROCESS_TERMINATE, /*bInheritHandle=*/FALSE, status.dwProcessId));
        if (process) ::TerminateProcess(process.get(), 99);
    }
    ::DeleteService(service.get());
    // The manager forgets it only when the last handle is closed.
    service.reset();
    const auto isForgotten = [] { return !openService() && ::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST; };
    if (!await(isForgotten)) throw std::runtime_error("The service cannot be removed");
}

} // namespace test
