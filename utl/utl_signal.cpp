#include "utl/utl_signal.h"

#include "core/log/core_v2masterlogger.h"

namespace NS_UTL {

Signal::Signal(int32_t signum, Handler handler) : m_signum(signum), m_installation(install(signum, handler)) {
    if (!m_installation) MLOG(Warn, "UTL::Signal::Signal", "failed to install signal handler for %d", m_signum);
}

Signal::~Signal() {
    if (m_installation && !m_installation->undo())
        MLOG(Warn, "UTL::Signal::~Signal", "failed to restore signal handler for %d", m_signum);
}

} // namespace NS_UTL
