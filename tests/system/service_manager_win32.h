#pragma once

// For the Windows sources of these tests only.
#include <windows.h>

#include <string>

#include "core/memory/core_scopedhandle_win32.h"

namespace test {

using ServiceHandle = NS_CORE::ScopedServiceHandle;

// Throws with the call's name, the last error's number and its text.
[[noreturn]] void failWithLastError(const std::string& call);

ServiceHandle openManager();

// Empty, with the last error left as it is, when the service is not installed.
ServiceHandle openService();

// The same; throws when it is not installed.
ServiceHandle openInstalledService();

// What the manager has stored of a service, with its texts.
class ServiceConfiguration {
public:
    explicit ServiceConfiguration(const ServiceHandle& service);
    const QUERY_SERVICE_CONFIGW* operator->() const { return reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(m_bytes); }

private:
    alignas(QUERY_SERVICE_CONFIGW) BYTE m_bytes[8192] = {};
};

SERVICE_STATUS_PROCESS statusOf(const ServiceHandle& service);

// Ends the service's process by its id, deletes the service and waits until the manager has forgotten it. Nothing to do
// when it is not installed.
void removeLeftService();

} // namespace test
