#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace setup {

// File names that set-up knows. The companion is not part of the product: it is ended, never removed.
inline constexpr const wchar_t* kServiceFile = L"quorkeri_service.exe";
inline constexpr const wchar_t* kCompanionFile = L"quorkeri_wrapper.exe";

// The paths of one installation. A directory has no separator at its end here.
std::wstring withoutSeparator(std::wstring directory);
std::wstring binDirectory(const std::wstring& directory);
std::wstring serviceProgram(const std::wstring& directory);
std::wstring companionProgram(const std::wstring& directory);
std::wstring dumpsDirectory(const std::wstring& directory);

// Whether both paths name the same file. Case does not count, and a short name equals its long form if the file exists.
bool isSamePath(const std::wstring& a, const std::wstring& b);

// Why this text cannot be the installation's directory, as a sentence that says what to do; nothing when it can. Looks
// at the text and the drive alone.
std::optional<std::wstring> directoryProblem(std::wstring_view directory);

// Why files cannot be made there, in the same form. Creates a file in the nearest directory that
// exists, and deletes it again.
std::optional<std::wstring> writingProblem(const std::wstring& directory);

// Why the Keri software keeps this directory from being used, in the same form: it must not lie there itself, because
// its libraries would be copied onto themselves, which empties them.
std::optional<std::wstring> keriProblem(const std::wstring& directory);

bool exists(const std::wstring& path);

// What keeps a program or a library from being replaced.
enum class Hold {
    OpenedElsewhere, // a program has opened it and does not share it; the service and its companion never do that
    OpenedOrRunning, // the same, or it runs as a program or is loaded as a library
};

// The first program or library of the installation that is held in this way, other than the companion; empty when there
// is none. Tries for up to `limitMs` milliseconds, because a program that has ended releases its file a moment later.
std::wstring heldFile(const std::wstring& directory, Hold hold, unsigned limitMs);

// Of an open file or directory (a HANDLE).
bool isLink(void* file);
// Where it really lies, with the prefix "\\?\"; empty when that cannot be found out.
std::wstring finalPath(void* file);

// Calls `visit` for each file and directory below this one, until it returns false; returns whether it never did. Links
// are visited and not followed.
bool forEachBelow(const std::wstring& directory, const std::function<bool(const std::wstring& path)>& visit);

// Removes this directory of the installation with all that is in it. A link is removed, what it leads to is not; what
// does not lie where its path says is left alone. False when something could not be removed, with `failed` naming the
// first; the rest is gone all the same.
bool removeTree(const std::wstring& directory, const std::wstring& name, std::wstring& failed);

} // namespace setup
