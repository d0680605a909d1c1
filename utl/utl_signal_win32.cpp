#include <csignal>

#include "utl/utl_signal_platform.h"

namespace NS_UTL {

bool signal_platform::install(int32_t signum, Signal::Handler handler, Signal::Handler& previous) {
    previous = std::signal(signum, handler);
    return previous != SIG_ERR;
}

bool signal_platform::restore(int32_t signum, Signal::Handler previous) {
    return std::signal(signum, previous) != SIG_ERR;
}

} // namespace NS_UTL
