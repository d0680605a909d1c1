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

// Starts the service again after an installation that was rolled back; nothing to do when it runs.
void startAgain(const Session& session);

// What an administrator may have changed in the registration, and an upgrade keeps.
struct ServiceSettings {
    unsigned long startType = 0; // as CreateService has it; 0, which no service of ours has, means unknown
    bool isDelayed = false;
    std::wstring account;     // "LocalSystem" when nobody has changed it
    std::wstring description; // may be empty

    // In one line, for the data of a deferred action, and back.
    std::wstring toText() const;
    static ServiceSettings fromText(const std::wstring& text);
};
ServiceSettings serviceSettings();

// Brings the registered service into its final form: the path of its program; the settings from before, where the
// registration was made anew (an account that needs a password stays LocalSystem, and the log says so); a delayed start
// where `isDelayed` says so; recovery actions, unless an administrator has set others. Windows 7 and later take all of
// it; Wine refuses a delayed start and recovery actions, which is logged and is no failure. False, with a sentence in
// the log, when the service would run another program.
bool configureService(const Session& session, const std::wstring& directory, const ServiceSettings& before,
                      std::optional<bool> isDelayed);

// Windows Error Reporting keeps the last five full dumps of the service and the companion in work\dumps of this
// directory. Settings of others for these programs stay as they are.
void setErrorReportingDumps(const Session& session, const std::wstring& directory);
// Takes that back, where it is this directory's.
void clearErrorReportingDumps(const Session& session, const std::wstring& directory);

} // namespace setup
