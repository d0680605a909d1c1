#pragma once

#include <optional>
#include <string>

namespace setup {

// A service of LocalSystem runs whatever lies in its directory. Only SYSTEM, administrators and the owner of Windows'
// own system directory may be able to change something there: they have full rights on the machine anyway. If an
// administrator lets the service run as another account than LocalSystem, that account is trusted, too: whoever can
// write there gains only that account's rights.

// What a security descriptor belongs to.
enum class Place {
    Above,  // a directory on the way to the installation, which must not be renamed or removed
    Inside, // the installation's directory and all below it, which nobody else may write to
    Root,   // a drive's root directory, which nobody can rename or remove
};

// Returns the first other account that owns the object with this security descriptor or may change it; empty when there
// is none. `descriptor` is a PSECURITY_DESCRIPTOR with owner and access list. A missing access list lets
// everybody in. Entries that deny something are not subtracted. `serviceAccount` is a PSID, or null.
std::wstring whoElseMayChange(void* descriptor, Place place, void* serviceAccount = nullptr);

// Looks at the directory, at everything below it, and at the directories above it. A sentence that says who else may
// change what, or what could not be judged, without a full stop; nothing when nobody else may change anything. What
// does not exist is not looked at. Links are not followed, but for those on the way to the directory. `serviceAccount`
// is a name as the service control manager has it, or empty. Needs an administrator's or SYSTEM's rights.
std::optional<std::wstring> reasonDirectoryIsOpen(const std::wstring& directory, const std::wstring& serviceAccount);

// Makes the directory, with the ones above it that are missing, for administrators and SYSTEM alone; users may read and
// run. They own it. Returns the system's text on failure, else an empty one.
std::wstring makeClosedDirectory(const std::wstring& directory);

// Makes the directory of the dumps, or changes it and the files in it, so that administrators and SYSTEM alone can read
// it: a dump holds the service's memory. So can the service's account, where that is another than LocalSystem. Returns
// the system's text on failure, else an empty one.
std::wstring closeDumps(const std::wstring& directory, const std::wstring& serviceAccount);

} // namespace setup
