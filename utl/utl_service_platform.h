#pragma once

#include <functional>
#include <string_view>

#include "utl/utl_signal.h"

// What utl_service.cpp asks of the platform, and what the platform's sources ask of it. For that unit alone.
namespace NS_UTL::service_platform {

// Runs `work` while `handler` is installed for every signal that stops console mode, and returns the result of `work`.
// Windows also calls `handler`, as for SIGBREAK, when the console is closed, the user signs off or the system shuts
// down. The system ends the process as soon as it has been notified of such an event, so from then on the
// notification never returns: the process ends by itself, or when the system's time limit expires.
int runWithConsoleHandlers(Signal::Handler handler, const std::function<int()>& work);

// Logs WARN "failed to open service manager: " with the text of the thread's last system error.
void logManagerNotOpened(std::string_view function);

} // namespace NS_UTL::service_platform
