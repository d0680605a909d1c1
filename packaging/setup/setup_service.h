#pragma once

#include <optional>
#include <string>

#include "packaging/setup/setup_session.h"

namespace setup {

// The registered name, as service-install registers it.
inline constexpr const wchar_t* kServiceName = L"quorkeri_service.exe";

// What the service control manager has under the service's name.
struct Registration {
    std::wstring program;             // the path of its program, without quotes
    bool isRunning = false;           // or about to be
    bool isMarkedForDeletion = false; // known only where the caller has the right to change it
};

// Nothing when there is none. One that cannot be read counts as there, with an empty program.
std::optional<Registration> registration();

// Ends what runs from this installation: asks its service to stop (one that is registered with another program is left
// alone) and waits up to `politeMs` milliseconds; ends companions that run from its bin directory, and, when even then
// the service does not stop, its process. Blocks for 25 seconds more at most. False, with a sentence in the log, when
// something still runs.
bool stopEverything(const Session& session, const std::wstring& directory, unsigned politeMs);

// Starts the service again after an installation that was taken back; nothing to do when it runs.
void startAgain(const Session& session);

// Windows starts the service again after a minute when its process dies, twice; a day without a failure clears the
// count. What an administrator has set already stays. A system that does not take it is not a failure.
void setRecovery(const Session& session);

} // namespace setup
