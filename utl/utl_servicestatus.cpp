#include "utl/utl_servicestatus.h"

#include <utility>

namespace NS_UTL {

void ServiceStatusReporter::begin() {
    const absl::MutexLock lock(&m_mutex);
    m_status = {};
    m_status.serviceType = ServiceType::Win32OwnProcess;
    m_status.currentState = ServiceState::StartPending;
    m_status.controlsAccepted = ServiceAccept::Stop | ServiceAccept::Shutdown;
}

void ServiceStatusReporter::connect(Report report) {
    const absl::MutexLock lock(&m_mutex);
    m_report = std::move(report);
}

void ServiceStatusReporter::enter(uint32_t state) {
    const absl::MutexLock lock(&m_mutex);
    if (isFinal()) return;
    m_status.currentState = state;
    report();
}

void ServiceStatusReporter::enterStopped(uint32_t serviceSpecificExitCode) {
    Report report;
    ServiceStatus last;
    {
        const absl::MutexLock lock(&m_mutex);
        if (isFinal()) return;
        m_status.serviceSpecificExitCode = serviceSpecificExitCode;
        m_status.currentState = ServiceState::Stopped;
        last = m_status;
        report = m_report;
    }
    // Outside the lock, and still the last report: whoever comes after it sees that the service has stopped, and
    // whoever was before it has reported. Under Wine this call waits for a control handler that is at work, so the
    // handler must not have to wait for it.
    if (report) report(last);
}

void ServiceStatusReporter::repeat() {
    const absl::MutexLock lock(&m_mutex);
    if (!isFinal()) report();
}

ServiceStatus ServiceStatusReporter::status() const {
    const absl::MutexLock lock(&m_mutex);
    return m_status;
}

bool ServiceStatusReporter::isFinal() const {
    return m_status.currentState == ServiceState::Stopped;
}

void ServiceStatusReporter::report() const {
    if (m_report) m_report(m_status);
}

} // namespace NS_UTL
