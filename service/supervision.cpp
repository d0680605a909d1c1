#include "service/supervision.h"

#include <utility>

#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_guniquebuf.h"
#include "core/net/core_socket.h"
#include "core/net/core_udp4socket.h"
#include "core/text/core_checkf.h"
#include "core/time/core_time.h"
#include "service/deployment.h"
#include "service/names.h"
#include "utl/utl_processutils.h"

namespace service {
namespace {

void startCompanion(const char* commandLine) {
    // A restart follows whatever the outcome; a failed start has been logged.
    unsigned long exitCode = 0;
    NS_UTL::ProcessUtils::start(commandLine, &exitCode);
}

void sendStopDatagram() {
    NS_CORE::Udp4Socket socket;
    const bool isOpen = socket.open(NS_CORE::SocketFlag::None, NS_CORE::kAnyAddress);
    if (!CHECKF_AT("main", 113, isOpen, "")) return;
    // Its bytes are not initialised: only the datagram's arrival counts.
    NS_CORE::GUniqueBuf payload(Supervisor::kStopDatagramSize);
    const bool isSent =
        socket.send(NS_CORE::kLoopbackAddress, kStopPort, payload.data(), Supervisor::kStopDatagramSize);
    static_cast<void>(CHECKF_AT("main", 122, isSent, ""));
}

} // namespace

Supervisor::Steps Supervisor::Steps::production() {
    return {&CopyDependencies, &startCompanion};
}

Supervisor::Supervisor(Steps steps, uint32_t restartDelayMs)
    : m_deploy(std::move(steps.deploy)), m_start(std::move(steps.start)), m_restartDelayMs(restartDelayMs) {}

int Supervisor::run(int /*argc*/, char** /*argv*/) {
    MLOG(Info, "Run", "Running");
    m_deploy();
    // Set only now: a stop request during the deployment is not kept.
    m_running = true;
    for (;;) {
        m_start(kCompanionName);
        if (!m_running) break;
        MLOG(Warn, "Run", "Run: '%s' failed", kCompanionName);
        NS_CORE::sleepFor(m_restartDelayMs);
        if (!m_running) break;
    }
    return 0;
}

void Supervisor::stop() {
    MLOG(Info, "Stop", "Stop");
    m_running = false;
    sendStopDatagram();
}

} // namespace service
