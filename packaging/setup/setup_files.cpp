#include "packaging/setup/setup_files.h"

#include <windows.h>

#include <algorithm>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_text.h"

namespace setup {
namespace {

using NS_CORE::ScopedFileHandle;
using NS_CORE::ScopedFindHandle;

constexpr size_t kLongestDirectory = 180; // so that the longest path below it fits into MAX_PATH

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

// Calls `visit` for each entry until it returns false. Nothing happens where there is no such directory.
template <class Visit>
void forEachEntry(const std::wstring& directory, const wchar_t* pattern, Visit visit) {
    WIN32_FIND_DATAW entry = {};
    const ScopedFindHandle find(::FindFirstFileW((directory + L'\\' + pattern).c_str(), &entry));
    if (!find) return;
    do {
        const std::wstring_view name = entry.cFileName;
        if (name == L"." || name == L"..") continue;
        if (!visit(directory + L'\\' + entry.cFileName, entry.dwFileAttributes)) return;
    } while (::FindNextFileW(find.get(), &entry));
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The file of a running program may be opened for deletion, but not for writing.
bool isHeld(const std::wstring& file, Hold hold) {
    const DWORD access = hold == Hold::OpenedElsewhere ? DELETE : GENERIC_WRITE | DELETE;
    const ScopedFileHandle handle(::CreateFileW(file.c_str(), access, kShareAll, /*lpSecurityAttributes=*/nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr));
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

// Opens what lies at this path, a link itself included, to inspect, list and delete it by the handle. Nobody else can
// rename or delete it while the handle is open.
ScopedFileHandle openForRemoval(const std::wstring& path) {
    return ScopedFileHandle(::CreateFileW(
        path.c_str(), DELETE | FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_WRITE, /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, /*hTemplateFile=*/nullptr));
}

DWORD attributesOf(HANDLE file) {
    BY_HANDLE_FILE_INFORMATION information = {};
    return ::GetFileInformationByHandle(file, &information) ? information.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}

// The names in a directory, but for itself and the one above.
std::vector<std::wstring> namesIn(HANDLE directory) {
    std::vector<std::wstring> names;
    constexpr size_t kBufferSize = 16384;
    alignas(FILE_ID_BOTH_DIR_INFO) BYTE buffer[kBufferSize];
    while (::GetFileInformationByHandleEx(directory, FileIdBothDirectoryInfo, buffer, sizeof(buffer))) {
        for (const BYTE* at = buffer;;) {
            const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
            std::wstring name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
            if (name != L"." && name != L"..") names.push_back(std::move(name));
            if (entry->NextEntryOffset == 0) break;
            at += entry->NextEntryOffset;
        }
    }
    return names;
}

bool isSameText(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                  /*bIgnoreCase=*/TRUE) == CSTR_EQUAL;
}

bool deleteByHandle(HANDLE file, DWORD attributes) {
    if (attributes & FILE_ATTRIBUTE_READONLY) {
        FILE_BASIC_INFO plain = {};
        plain.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        ::SetFileInformationByHandle(file, FileBasicInfo, &plain, sizeof(plain));
    }
    FILE_DISPOSITION_INFO disposition = {};
    disposition.DeleteFile = TRUE;
    return ::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition));
}

// `place` is where the path has to lead. Whoever could write here may have put a link in the way since the directory
// above was listed; what the handle leads to is the only thing that counts.
void removeAt(const std::wstring& path, const std::wstring& place, std::wstring& failed) {
    const auto note = [&](const std::wstring& why) {
        if (failed.empty()) failed = path + L": " + why;
    };
    const ScopedFileHandle handle = openForRemoval(path);
    if (!handle) return note(errorText(::GetLastError()));
    if (!isSameText(finalPath(handle.get()), place)) return note(L"it leads out of the installation");
    const DWORD attributes = attributesOf(handle.get());
    if (isDirectory(attributes) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
        for (const std::wstring& name : namesIn(handle.get())) {
            const std::wstring part = L'\\' + name;
            removeAt(path + part, place + part, failed);
        }
    if (!deleteByHandle(handle.get(), attributes)) note(errorText(::GetLastError()));
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

std::wstring dumpsDirectory(const std::wstring& directory) {
    return directory + L"\\work\\dumps";
}

bool isSamePath(const std::wstring& a, const std::wstring& b) {
    return isSameText(longPath(a), longPath(b));
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
    // An existing file may belong to somebody. So this opens only a new one, which is deleted at the end.
    ScopedFileHandle file;
    for (int number = 0; !file && number < 100; ++number) {
        const std::wstring probe = nearest + L"\\quorkeri_setup_" + std::to_wstring(number) + L".tmp";
        file.reset(::CreateFileW(probe.c_str(), GENERIC_WRITE | DELETE, /*dwShareMode=*/0,
                                 /*lpSecurityAttributes=*/nullptr, CREATE_NEW,
                                 FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, /*hTemplateFile=*/nullptr));
        if (!file && ::GetLastError() != ERROR_FILE_EXISTS) break;
    }
    if (file) return std::nullopt;
    return L"No file can be made in '" + nearest + L"': " + errorText(::GetLastError()) +
           L". Give administrators and SYSTEM full rights there, or choose another directory with INSTALLDIR. Nothing "
           L"was "
           L"changed.";
}

std::optional<std::wstring> keriProblem(const std::wstring& directory) {
    wchar_t keri[1024] = {}; // what does not fit is longer than any directory that the installation may have
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

bool isLink(void* file) {
    return attributesOf(file) & FILE_ATTRIBUTE_REPARSE_POINT;
}

std::wstring finalPath(void* file) {
    wchar_t path[1024] = {};
    const DWORD length = ::GetFinalPathNameByHandleW(file, path, ARRAYSIZE(path), FILE_NAME_NORMALIZED);
    return length < ARRAYSIZE(path) ? std::wstring(path, length) : std::wstring();
}

bool forEachBelow(const std::wstring& directory, const std::function<bool(const std::wstring& path)>& visit) {
    bool goesOn = true;
    forEachEntry(directory, L"*", [&](const std::wstring& path, DWORD attributes) {
        goesOn = visit(path);
        if (goesOn && isDirectory(attributes) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
            goesOn = forEachBelow(path, visit);
        return goesOn;
    });
    return goesOn;
}

bool removeTree(const std::wstring& directory, const std::wstring& name, std::wstring& failed) {
    failed.clear();
    const std::wstring path = directory + L'\\' + name;
    if (!isDirectory(::GetFileAttributesW(path.c_str()))) return true;
    // The directory itself may be reached by a link, which is the administrator's own affair.
    const ScopedFileHandle handle(::CreateFileW(directory.c_str(), FILE_READ_ATTRIBUTES, kShareAll,
                                                /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING,
                                                FILE_FLAG_BACKUP_SEMANTICS, /*hTemplateFile=*/nullptr));
    removeAt(path, finalPath(handle.get()) + L'\\' + name, failed);
    return failed.empty();
}

} // namespace setup
