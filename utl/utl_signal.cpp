#include "utl/utl_signal.h"

#include "core/log/core_v2masterlogger.h"
#include "utl/utl_signal_platform.h"

namespace NS_UTL {

Signal::Signal(int32_t signum, Handler handler)
    : m_signum(signum), m_isInstalled(signal_platform::install(signum, handler, m_previous)) {
    if (!m_isInstalled) MLOG(Warn, "UTL::Signal::Signal", "failed to install signal handler for %d", m_signum);
}

Signal::~Signal() {
    if (m_isInstalled && !signal_platform::restore(m_signum, m_previous))
        MLOG(Warn, "UTL::Signal::~Signal", "failed to restore signal handler for %d", m_signum);
}

} // namespace NS_UTL
