#include "packaging/setup/setup_files.h"

#include <windows.h>

#include <algorithm>

#include "core/memory/core_scopedhandle.h"
#include "packaging/setup/setup_session.h"

namespace setup {
namespace {

struct FileHandleTraits {
    using Value = HANDLE;
    static Value empty() { return INVALID_HANDLE_VALUE; }
    static void close(Value value) { ::CloseHandle(value); }
};
using ScopedFile = NS_CORE::ScopedHandle<FileHandleTraits>;

struct FindHandleTraits {
    using Value = HANDLE;
    static Value empty() { return INVALID_HANDLE_VALUE; }
    static void close(Value value) { ::FindClose(value); }
};
using ScopedFind = NS_CORE::ScopedHandle<FindHandleTraits>;

constexpr size_t kLongestDirectory = 180; // what the longest name below it still fits into, with MAX_PATH for the whole

bool isLetter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

bool hasRelativePart(std::wstring_view path) {
    while (!path.empty()) {
        const size_t length = std::min(path.find(L'\\'), path.size());
        const std::wstring_view part = path.substr(0, length);
        // Windows drops a dot at a part's end: the directory would have another name than the registered path.
        if (part.ends_with(L'.')) return true;
        path.remove_prefix(std::min(length + 1, path.size()));
    }
    return false;
}

std::wstring longPath(const std::wstring& path) {
    wchar_t buffer[1024] = {};
    const DWORD length = ::GetLongPathNameW(path.c_str(), buffer, ARRAYSIZE(buffer));
    return length > 0 && length < ARRAYSIZE(buffer) ? std::wstring(buffer, length) : path;
}

bool isDirectory(DWORD attributes) {
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// Calls `visit` for each entry until it answers false. Nothing happens where there is no such directory.
template <class Visit>
void forEachEntry(const std::wstring& directory, const wchar_t* pattern, Visit visit) {
    WIN32_FIND_DATAW entry = {};
    const ScopedFind find(::FindFirstFileW((directory + L'\\' + pattern).c_str(), &entry));
    if (!find) return;
    do {
        const std::wstring_view name = entry.cFileName;
        if (name == L"." || name == L"..") continue;
        if (!visit(directory + L'\\' + entry.cFileName, entry.dwFileAttributes)) return;
    } while (::FindNextFileW(find.get(), &entry));
}

// A file that runs may be opened for deletion, but not for writing.
bool isHeld(const std::wstring& file, Hold hold) {
    const DWORD access = hold == Hold::OpenedElsewhere ? DELETE : GENERIC_WRITE | DELETE;
    const ScopedFile handle(::CreateFileW(file.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                          /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                          /*hTemplateFile=*/nullptr));
    if (handle) return false;
    const DWORD error = ::GetLastError();
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION || error == ERROR_USER_MAPPED_FILE;
}

std::wstring heldNow(const std::wstring& directory, Hold hold) {
    std::wstring held;
    const std::wstring companion = companionProgram(directory);
    for (const wchar_t* pattern : {L"*.exe", L"*.dll"}) {
        forEachEntry(binDirectory(directory), pattern, [&](const std::wstring& file, DWORD attributes) {
            if (!isDirectory(attributes) && !isSamePath(file, companion) && isHeld(file, hold)) held = file;
            return held.empty();
        });
        if (!held.empty()) return held;
    }
    return held;
}

void note(const std::wstring& path, bool isDone, std::wstring& failed) {
    if (!isDone && failed.empty()) failed = path + L": " + errorText(::GetLastError());
}

void removeFile(const std::wstring& file, std::wstring& failed) {
    if (::DeleteFileW(file.c_str())) return;
    ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    note(file, ::DeleteFileW(file.c_str()) != 0, failed);
}

void removeTreeInto(const std::wstring& directory, std::wstring& failed) {
    forEachEntry(directory, L"*", [&](const std::wstring& path, DWORD attributes) {
        if (!isDirectory(attributes))
            removeFile(path, failed);
        else if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
            note(path, ::RemoveDirectoryW(path.c_str()) != 0, failed);
        else
            removeTreeInto(path, failed);
        return true;
    });
    note(directory, ::RemoveDirectoryW(directory.c_str()) != 0, failed);
}

} // namespace

std::wstring withoutSeparator(std::wstring directory) {
    while (directory.ends_with(L'\\')) directory.pop_back();
    return directory;
}

std::wstring binDirectory(const std::wstring& directory) {
    return directory + L"\\bin";
}

std::wstring serviceProgram(const std::wstring& directory) {
    return binDirectory(directory) + L'\\' + kServiceFile;
}

std::wstring companionProgram(const std::wstring& directory) {
    return binDirectory(directory) + L'\\' + kCompanionFile;
}

bool isSamePath(const std::wstring& a, const std::wstring& b) {
    const std::wstring longA = longPath(a);
    const std::wstring longB = longPath(b);
    return ::CompareStringOrdinal(longA.c_str(), static_cast<int>(longA.size()), longB.c_str(),
                                  static_cast<int>(longB.size()), /*bIgnoreCase=*/TRUE) == CSTR_EQUAL;
}

std::optional<std::wstring> directoryProblem(std::wstring_view directory) {
    const std::wstring named = L"INSTALLDIR is '" + std::wstring(directory) + L"'. ";
    const auto problem = [&](const wchar_t* why) {
        return named + why + L" Choose a directory such as C:\\QuorkeriService. Nothing was changed.";
    };
    if (directory.size() < 3 || !isLetter(directory[0]) || directory[1] != L':' || directory[2] != L'\\')
        return problem(L"It has to be a full path on a local drive: a letter, a colon, a backslash, a name.");
    const std::wstring drive(directory.substr(0, 3));
    std::wstring_view rest = directory.substr(3);
    while (rest.ends_with(L'\\')) rest.remove_suffix(1);
    if (rest.empty()) return problem(L"The root of a drive cannot be the installation's directory.");
    if (std::any_of(rest.begin(), rest.end(), [](wchar_t c) { return c == L' ' || c == L'\t' || c == 0xA0; }))
        return problem(
            L"A blank in it is not safe: the service's path is registered without quotes, and Windows would try "
            L"other programs first.");
    constexpr std::wstring_view kForbidden = L"\"'<>|?*:/;%&^";
    if (rest.find_first_of(kForbidden) != std::wstring_view::npos ||
        std::any_of(rest.begin(), rest.end(), [](wchar_t c) { return c < L' '; }))
        return problem(L"It has a character that a directory's path must not have: one of \" ' < > | ? * : / ; % & ^");
    if (rest.find(L"\\\\") != std::wstring_view::npos || hasRelativePart(rest))
        return problem(L"No part of it may be empty or end in a dot.");
    if (directory.size() > kLongestDirectory) return problem(L"It is too long for the files below it.");
    const UINT type = ::GetDriveTypeW(drive.c_str());
    if (type == DRIVE_NO_ROOT_DIR) return problem(L"There is no such drive.");
    if (type == DRIVE_REMOTE || type == DRIVE_CDROM)
        return problem(L"The service starts before anybody logs on and needs a local drive.");
    return std::nullopt;
}

std::optional<std::wstring> writingProblem(const std::wstring& directory) {
    // Never further than the drive, "C:", which asks with a separator.
    std::wstring nearest = directory;
    DWORD attributes = ::GetFileAttributesW(nearest.c_str());
    while (attributes == INVALID_FILE_ATTRIBUTES && nearest.size() > 2) {
        nearest.resize(std::max<size_t>(nearest.find_last_of(L'\\'), 2));
        attributes = ::GetFileAttributesW(nearest.size() > 2 ? nearest.c_str() : (nearest + L'\\').c_str());
    }
    if (!isDirectory(attributes))
        return L"'" + nearest +
               L"' is a file, and the installation needs a directory there. Move the file away, or choose "
               L"another directory with INSTALLDIR. Nothing was changed.";
    const std::wstring probe = nearest + L"\\quorkeri_setup.tmp";
    const ScopedFile file(::CreateFileW(probe.c_str(), GENERIC_WRITE, /*dwShareMode=*/0,
                                        /*lpSecurityAttributes=*/nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE,
                                        /*hTemplateFile=*/nullptr));
    if (file) return std::nullopt;
    return L"No file can be made in '" + nearest + L"': " + errorText(::GetLastError()) +
           L". Give administrators and SYSTEM full rights there, or choose another directory with INSTALLDIR. Nothing "
           L"was "
           L"changed.";
}

std::optional<std::wstring> keriProblem(const std::wstring& directory) {
    wchar_t keri[1024] = {};
    DWORD size = sizeof(keri) - sizeof(wchar_t);
    // The Keri software is a 32-bit package, as this library is one.
    constexpr const wchar_t* kKey =
        L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}";
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, L"InstallLocation", RRF_RT_REG_SZ, /*pdwType=*/nullptr, keri, &size))
        return std::nullopt;
    if (!isSamePath(withoutSeparator(keri), binDirectory(directory))) return std::nullopt;
    return L"'" + binDirectory(directory) +
           L"' is where the Keri software is installed. Its libraries would be copied onto "
           L"themselves and lost. Choose another directory with INSTALLDIR. Nothing was changed.";
}

bool exists(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring heldFile(const std::wstring& directory, Hold hold, unsigned limitMs) {
    constexpr DWORD kPauseMs = 50;
    const ULONGLONG end = ::GetTickCount64() + limitMs;
    for (;;) {
        std::wstring held = heldNow(directory, hold);
        if (held.empty() || ::GetTickCount64() >= end) return held;
        ::Sleep(kPauseMs);
    }
}

bool removeTree(const std::wstring& directory, std::wstring& failed) {
    failed.clear();
    const DWORD attributes = ::GetFileAttributesW(directory.c_str());
    if (!isDirectory(attributes)) return true;
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        note(directory, ::RemoveDirectoryW(directory.c_str()) != 0, failed);
    else
        removeTreeInto(directory, failed);
    return failed.empty();
}

} // namespace setup
