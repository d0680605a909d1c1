// The custom actions of the installer package, as packaging/setup/quorkeri.wxs names them. Each returns
// ERROR_SUCCESS, or ERROR_INSTALL_FAILURE after it has logged a sentence that says what to do.

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_files.h"
#include "packaging/setup/setup_rights.h"
#include "packaging/setup/setup_service.h"
#include "packaging/setup/setup_session.h"
#include "packaging/setup/setup_text.h"

namespace setup {
namespace {

// The installation's directory as the property holds it: before costing, exactly as it was given.
std::wstring directoryOf(const Session& session, const wchar_t* property) {
    return withoutSeparator(session.property(property));
}

// A service of our name counts as ours when it runs the program in this directory or, in an upgrade, in that of the
// version that is replaced.
bool isOurs(const Session& session, const Registration& service) {
    if (isSamePath(service.program, serviceProgram(directoryOf(session, L"INSTALLDIR")))) return true;
    const bool isUpgrade = !session.property(L"OTHERFOUND").empty();
    return isUpgrade && isSamePath(service.program, serviceProgram(directoryOf(session, L"INSTALLEDDIR")));
}

std::wstring foreignServiceText(const Registration& service) {
    return L"A service named '" + std::wstring(kServiceName) + L"' is registered already and runs '" + service.program +
           L"', which does not belong to this installation. If it is an earlier copy of this product, remove it there ("
           L"net stop, then service-remove, or sc delete " +
           kServiceName + L"), or install into its directory with INSTALLDIR. Nothing was changed.";
}

std::wstring markedText() {
    return L"The service '" + std::wstring(kServiceName) +
           L"' is marked for deletion and goes away when every program that looks at it has ended. Close the services "
           L"window, the task manager and the event viewer (or restart the machine) and start again. Nothing was "
           L"changed.";
}

std::wstring heldText(const std::wstring& file) {
    return L"'" + file +
           L"' is held open by another program. Close that program (a restart of the machine does it as "
           L"well) and start again. Nothing was changed.";
}

std::wstring notMadeText(const std::wstring& directory, const std::wstring& reason) {
    return L"The directory '" + directory + L"' cannot be made: " + reason + L". Nothing was changed.";
}

bool isElevated() {
    HANDLE opened = nullptr;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, /*OpenAsSelf=*/TRUE, &opened) &&
        !::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened))
        return false;
    const NS_CORE::ScopedKernelHandle token(opened);
    TOKEN_ELEVATION elevation = {};
    DWORD size = 0;
    return ::GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof(elevation), &size) &&
           elevation.TokenIsElevated;
}

// Between 0 and 600; nothing for any other text.
std::optional<unsigned> stopSeconds(const std::wstring& text) {
    constexpr unsigned kMost = 600;
    if (text.empty() || text.size() > 3 || text.find_first_not_of(L"0123456789") != std::wstring::npos)
        return std::nullopt;
    const unsigned seconds = static_cast<unsigned>(std::stoul(text));
    return seconds <= kMost ? std::optional(seconds) : std::nullopt;
}

// A property that is 0 or 1; nothing when it is not set. For any other value logs a sentence and sets `isValid` to
// false.
std::optional<bool> choice(const Session& session, const wchar_t* name, bool& isValid) {
    const std::wstring value = session.property(name);
    if (value.empty()) return std::nullopt;
    if (value == L"0" || value == L"1") return value == L"1";
    session.logError(std::wstring(name) + L" is '" + value + L"'. It has to be 0 or 1. Nothing was changed.");
    isValid = false;
    return std::nullopt;
}

std::wstring openText(const std::wstring& directory, const std::wstring& found) {
    return found +
           L", who could so let the service run a program of his own with full rights. Look at what lies there, then "
           L"close it (icacls " +
           directory + L" /setowner *S-1-5-32-544 /T & icacls " + directory + L" /reset /T & icacls " + directory +
           L" /inheritance:r /grant:r *S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-32-545:(OI)(CI)RX) and start "
           L"again; or choose another directory with INSTALLDIR; or, to install there all the same, add "
           L"ALLOWOPENDIR=1. Nothing was changed.";
}

// Whether the service may run from this directory.
bool mayRunIn(const Session& session, const std::wstring& directory, bool isOpenAllowed) {
    const std::optional<std::wstring> found = reasonDirectoryIsOpen(directory, serviceSettings().account);
    if (!found) return true;
    if (isOpenAllowed)
        session.log(L"ALLOWOPENDIR=1: the service will run there, although " + *found);
    else
        session.logError(openText(directory, *found));
    return isOpenAllowed;
}

// Whether the installation ends with a running service: as START says, or else if the companion is there already.
// Without the companion the service would look for a program of that name along the system's PATH, every five seconds.
bool shouldStart(const Session& session) {
    const std::wstring wanted = session.property(L"START");
    if (wanted == L"0") session.log(L"START=0: the service is not started");
    if (!wanted.empty()) return wanted == L"1";
    const std::wstring companion = companionProgram(directoryOf(session, L"INSTALLDIR"));
    if (exists(companion)) return true;
    session.log(L"the service is not started, because '" + companion +
                L"' is missing; copy it there, then type: net start " + kServiceName);
    return false;
}

// Looks for held files before the first change, while there is nothing to roll back. If one is held, logs a sentence
// and returns false.
bool isFree(const Session& session) {
    constexpr unsigned kLimitMs = 2000; // a virus scanner lets go again
    const std::wstring held = heldFile(directoryOf(session, L"INSTALLDIR"), Hold::OpenedElsewhere, kLimitMs);
    if (held.empty()) return true;
    session.logError(heldText(held));
    return false;
}

// Checks everything that can be checked before the first change. If something is wrong, logs a sentence and returns
// false.
bool canInstall(const Session& session, const std::optional<Registration>& service) {
    const std::wstring given = session.property(L"INSTALLDIR");
    std::optional<std::wstring> problem = directoryProblem(given);
    // The person who starts the installation with a window may have fewer rights than the installation itself.
    if (!problem && isElevated()) problem = writingProblem(binDirectory(withoutSeparator(given)));
    if (!problem) problem = keriProblem(withoutSeparator(given));
    if (!problem && service && !isOurs(session, *service)) problem = foreignServiceText(*service);
    if (!problem && service && service->isMarkedForDeletion) problem = markedText();
    if (problem) {
        session.logError(*problem);
        return false;
    }
    bool isValid = true;
    for (const wchar_t* name : {L"DELAYEDSTART", L"START", L"WERDUMPS"})
        if (isValid) choice(session, name, isValid);
    const bool isOpenAllowed = choice(session, L"ALLOWOPENDIR", isValid).value_or(false);
    // Without an administrator's rights the directory cannot be judged here. ProtectDirectory judges it again.
    return isValid && (!isElevated() || mayRunIn(session, withoutSeparator(given), isOpenAllowed));
}

} // namespace
} // namespace setup

extern "C" {

// Immediate, before costing: checks the directory, the service's name and the properties. Sets properties for the other
// actions: RestoreService if the service runs, FOREIGNSERVICE if it belongs to another program, STAYSTOPPED if it must
// not be started, and ServiceBefore to what an administrator has set for it.
__declspec(dllexport) UINT __stdcall Prepare(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::optional<setup::Registration> service = setup::registration();
    const bool isRemoval = session.property(L"REMOVE") == L"ALL";
    const std::wstring seconds = session.property(L"STOPTIMEOUT");
    if (!setup::stopSeconds(seconds)) {
        session.logError(L"STOPTIMEOUT is '" + seconds +
                         L"'. It has to be a number of seconds from 0 to 600. Nothing was changed.");
        return ERROR_INSTALL_FAILURE;
    }
    if (!session.property(L"NEWERFOUND").empty()) {
        session.logError(
            L"A newer version of Quorvane Keri Wrapper is installed already. Nothing was changed. To go back "
            L"to version " +
            session.property(L"ProductVersion") +
            L", remove the newer one first (Apps and features, or msiexec /x), then install this one.");
        return ERROR_INSTALL_FAILURE;
    }
    if (!isRemoval && !setup::canInstall(session, service)) return ERROR_INSTALL_FAILURE;
    if (!setup::isFree(session)) return ERROR_INSTALL_FAILURE;
    if (service && !setup::isOurs(session, *service)) {
        session.log(L"the service runs '" + service->program + L"' and is left alone");
        session.setProperty(L"FOREIGNSERVICE", L"1");
        return ERROR_SUCCESS;
    }
    const setup::ServiceSettings before = setup::serviceSettings();
    session.setProperty(L"ServiceBefore", before.toText());
    if (before.startType == SERVICE_DISABLED) {
        session.log(L"the service is disabled, stays so and is not started");
        session.setProperty(L"STAYSTOPPED", L"1");
    } else if (!isRemoval && !setup::shouldStart(session)) {
        session.setProperty(L"STAYSTOPPED", L"1");
    }
    if (service && service->isRunning) session.setProperty(L"RestoreService", L"running");
    return ERROR_SUCCESS;
}

// Immediate, after the earlier version has gone: sets KEEPSERVICE if our service is still registered. Otherwise
// Windows' own action would replace its settings by the package's.
__declspec(dllexport) UINT __stdcall KeepService(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::optional<setup::Registration> service = setup::registration();
    if (service && setup::isOurs(session, *service)) session.setProperty(L"KEEPSERVICE", L"1");
    return ERROR_SUCCESS;
}

// Deferred; data: SECONDS|DIRECTORY, the time that the service gets to stop and the installation's directory.
__declspec(dllexport) UINT __stdcall StopService(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::vector<std::wstring> data = setup::splitData(session.actionData(), /*count=*/2);
    const unsigned seconds = setup::stopSeconds(data[0]).value_or(0);
    const std::wstring directory = setup::withoutSeparator(data[1]);
    const std::optional<setup::Registration> service = setup::registration();
    if (!setup::stopEverything(session, directory, seconds * 1000)) return ERROR_INSTALL_FAILURE;
    constexpr unsigned kLimitMs = 5000;
    const std::wstring held = setup::heldFile(directory, setup::Hold::OpenedOrRunning, kLimitMs);
    if (held.empty()) return ERROR_SUCCESS;
    session.logError(setup::heldText(held));
    // Not left to the rollback, which not every kind of installation has.
    if (service && service->isRunning && setup::isSamePath(service->program, setup::serviceProgram(directory)))
        setup::startAgain(session);
    return ERROR_INSTALL_FAILURE;
}

// Deferred, before anything is copied; data: ALLOWOPENDIR|DIRECTORY. Makes the directory closed, or judges
// the one that is there again, now with the rights of SYSTEM. The dumps are closed in either case.
__declspec(dllexport) UINT __stdcall ProtectDirectory(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::vector<std::wstring> data = setup::splitData(session.actionData(), /*count=*/2);
    const std::wstring directory = setup::withoutSeparator(data[1]);
    const std::wstring work = directory + L"\\work";
    if (setup::exists(directory)) {
        if (!setup::mayRunIn(session, directory, data[0] == L"1")) return ERROR_INSTALL_FAILURE;
    }
    for (const std::wstring& missing : {directory, work}) {
        if (setup::exists(missing)) continue;
        const std::wstring problem = setup::makeClosedDirectory(missing);
        if (!problem.empty()) {
            session.logError(setup::notMadeText(missing, problem));
            return ERROR_INSTALL_FAILURE;
        }
        session.log(L"made '" + missing + L"', where only administrators and SYSTEM may write");
    }
    const std::wstring failed = setup::closeDumps(setup::dumpsDirectory(directory), setup::serviceSettings().account);
    session.log(failed.empty() ? L"only administrators and SYSTEM may read the dumps"
                               : L"the rights of the dumps could not be set: " + failed);
    return ERROR_SUCCESS;
}

// Rollback twin of StopService; data: "running" when the service ran before.
__declspec(dllexport) UINT __stdcall RestoreService(MSIHANDLE installation) {
    const setup::Session session(installation);
    if (session.actionData() == L"running") setup::startAgain(session);
    return ERROR_SUCCESS;
}

// Deferred, after the service is registered; data: DELAYEDSTART|DIRECTORY|ServiceBefore, the last as Prepare has
// set it.
__declspec(dllexport) UINT __stdcall ConfigureService(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::vector<std::wstring> data = setup::splitData(session.actionData(), /*count=*/3);
    const std::optional<bool> isDelayed = data[0].empty() ? std::nullopt : std::optional(data[0] == L"1");
    return setup::configureService(session, setup::withoutSeparator(data[1]), setup::ServiceSettings::fromText(data[2]),
                                   isDelayed)
               ? ERROR_SUCCESS
               : ERROR_INSTALL_FAILURE;
}

// Deferred; data: WERDUMPS|DIRECTORY; WERDUMPS is 0 in a removal.
__declspec(dllexport) UINT __stdcall SetDumps(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::vector<std::wstring> data = setup::splitData(session.actionData(), /*count=*/2);
    const std::wstring directory = setup::withoutSeparator(data[1]);
    if (data[0] == L"1")
        setup::setErrorReportingDumps(session, directory);
    else
        setup::clearErrorReportingDumps(session, directory);
    return ERROR_SUCCESS;
}

// Commit, at the end of a removal that cannot be rolled back any more; data: the installation's directory. Removes what
// the service and the administrator have written. The companion, and whatever else lies there, stays.
__declspec(dllexport) UINT __stdcall Purge(MSIHANDLE installation) {
    const setup::Session session(installation);
    const std::wstring directory = setup::withoutSeparator(session.actionData());
    std::wstring failed;
    for (const wchar_t* name : {L"work", L"settings", L"assets"}) {
        if (!setup::removeTree(directory, name, failed)) session.log(L"not removed: " + failed);
    }
    ::RemoveDirectoryW(setup::binDirectory(directory).c_str());
    ::RemoveDirectoryW(directory.c_str());
    return ERROR_SUCCESS;
}

} // extern "C"
