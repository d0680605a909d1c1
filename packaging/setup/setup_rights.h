#pragma once

#include <optional>
#include <string>

namespace setup {

// A service of LocalSystem runs whatever lies in its directory. Only SYSTEM, administrators and the owner of Windows'
// own system directory may be able to change something there: they have full rights on the machine anyway.

// What a security descriptor belongs to.
enum class Place {
    Above,  // a directory on the way to the installation, which must not be renamed or removed
    Inside, // the installation's directory and all below it, which nobody else may write to
    Root,   // a drive's root directory, which nobody can rename or remove
};

// The first account beside the three that owns the thing with this security descriptor or may change it; empty when
// there is none. `descriptor` is a PSECURITY_DESCRIPTOR with owner and access list. A missing access list lets
// everybody in. Entries that deny something are not subtracted.
std::wstring whoElseMayChange(void* descriptor, Place place);

// Looks at the directory, at everything below it, and at the directories above it. A sentence that says who else may
// change what, without a full stop; nothing when nobody may. What does not exist is not looked at. Links are not
// followed, but for those on the way to the directory.
std::optional<std::wstring> openDirectory(const std::wstring& directory);

// Makes the directory, with the ones above it that are missing, for administrators and SYSTEM alone; users may read and
// run. They own it. Returns the system's text on failure, else an empty one.
std::wstring makeClosedDirectory(const std::wstring& directory);

// Makes the directory of the dumps, or changes it and the files in it, so that administrators and SYSTEM alone can read
// it: a dump holds the service's memory. Returns the system's text on failure, else an empty one.
std::wstring closeDumps(const std::wstring& directory);

} // namespace setup
