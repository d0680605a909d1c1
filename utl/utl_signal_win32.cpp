#include <csignal>

#include "utl/utl_signal.h"

namespace NS_UTL {

class Signal::PlatformInstallation final : public Signal::Installation {
public:
    PlatformInstallation(int32_t signum, Handler previous) : m_signum(signum), m_previous(previous) {}

    bool undo() override { return std::signal(m_signum, m_previous) != SIG_ERR; }

private:
    int32_t m_signum;
    Handler m_previous;
};

std::unique_ptr<Signal::Installation> Signal::install(int32_t signum, Handler handler) {
    const Handler previous = std::signal(signum, handler);
    if (previous == SIG_ERR) return nullptr;
    return std::make_unique<PlatformInstallation>(signum, previous);
}

} // namespace NS_UTL
