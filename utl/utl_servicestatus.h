#pragma once

#include <cstdint>
#include <functional>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace NS_UTL {

// The service control manager's numbers, after their names in the Windows SDK, for code that both platforms share.
namespace ServiceType {
inline constexpr uint32_t Win32OwnProcess = 0x10; // SERVICE_WIN32_OWN_PROCESS
}
namespace ServiceState {
inline constexpr uint32_t Stopped = 1;      // SERVICE_STOPPED
inline constexpr uint32_t StartPending = 2; // SERVICE_START_PENDING
inline constexpr uint32_t StopPending = 3;  // SERVICE_STOP_PENDING
inline constexpr uint32_t Running = 4;      // SERVICE_RUNNING
} // namespace ServiceState
namespace ServiceAccept {
inline constexpr uint32_t Stop = 1;     // SERVICE_ACCEPT_STOP
inline constexpr uint32_t Shutdown = 4; // SERVICE_ACCEPT_SHUTDOWN
} // namespace ServiceAccept
namespace ServiceControl {
inline constexpr uint32_t Stop = 1;        // SERVICE_CONTROL_STOP
inline constexpr uint32_t Pause = 2;       // SERVICE_CONTROL_PAUSE
inline constexpr uint32_t Continue = 3;    // SERVICE_CONTROL_CONTINUE
inline constexpr uint32_t Interrogate = 4; // SERVICE_CONTROL_INTERROGATE
inline constexpr uint32_t Shutdown = 5;    // SERVICE_CONTROL_SHUTDOWN
} // namespace ServiceControl

// What a service tells the manager about itself: the seven fields of SERVICE_STATUS, in its order.
struct ServiceStatus {
    uint32_t serviceType = 0;
    uint32_t currentState = 0;
    uint32_t controlsAccepted = 0;
    uint32_t win32ExitCode = 0;
    uint32_t serviceSpecificExitCode = 0;
    uint32_t checkPoint = 0;
    uint32_t waitHint = 0;

    bool operator==(const ServiceStatus&) const = default;
};

// The service's status, and the order in which it is reported. The service main and the control handler change the
// status from two threads; each change and its report happen under one lock, so that the manager sees the changes in
// the order in which they were made. Only the last report is made after the lock is released, because the manager's
// library may make that call wait for a control handler that is still running. "Stopped" is final: nothing changes or
// is reported after it. Without that, a control handler that is slower than the end of the work would leave the service
// in "stop pending" for good.
class ServiceStatusReporter {
public:
    // Hands one status to the manager. Called under the lock (but for the last): it must not call back, and should not
    // block.
    using Report = std::function<void(const ServiceStatus&)>;

    // All fields 0, and nobody to report to.
    ServiceStatusReporter() = default;

    // Fills the record as a service begins: own process, start pending, stop and shutdown accepted, all else 0.
    void begin();

    // Where reports go from now on. Until then they go nowhere.
    void connect(Report report);

    // Makes `state` the current one and reports it. Nothing happens once the service has stopped.
    void enter(uint32_t state);

    // The last report: stopped, with the service-specific exit code.
    void enterStopped(uint32_t serviceSpecificExitCode);

    // Reports the status as it is. Nothing happens once the service has stopped.
    void repeat();

    ServiceStatus status() const;

private:
    bool isFinal() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);
    void report() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);

    mutable absl::Mutex m_mutex;
    ServiceStatus m_status ABSL_GUARDED_BY(m_mutex);
    Report m_report ABSL_GUARDED_BY(m_mutex);
};

} // namespace NS_UTL
