#pragma once

#include "utl/utl_signal.h"

// What utl_signal.cpp asks of the platform. For that unit alone.
namespace NS_UTL::signal_platform {

// Installs the handler and stores the one that it replaces. False when the system refuses.
bool install(int32_t signum, Signal::Handler handler, Signal::Handler& previous);

// Puts back what an installation replaced. False when the system refuses.
bool restore(int32_t signum, Signal::Handler previous);

} // namespace NS_UTL::signal_platform
