#include "packaging/setup/setup_rights.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <array>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_files.h"
#include "packaging/setup/setup_text.h"

namespace setup {
namespace {

using NS_CORE::ScopedFileHandle;
using ScopedDescriptor = NS_CORE::ScopedLocalMemory<void>;
using ScopedText = NS_CORE::ScopedLocalMemory<wchar_t>;

// Nothing inherited, owned by administrators. Full rights for SYSTEM and administrators, for all that lies below.
constexpr const wchar_t* kAdministratorsOnly = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
// The same, and users may read and run.
constexpr const wchar_t* kUsersMayRead = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FRFX;;;BU)";

constexpr ACCESS_MASK kRemoval = DELETE | WRITE_DAC | WRITE_OWNER | FILE_DELETE_CHILD;
constexpr ACCESS_MASK kWriting = kRemoval | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES;

ACCESS_MASK harmfulRights(Place place) {
    switch (place) {
        case Place::Above:
            return kRemoval;
        case Place::Inside:
            return kWriting;
        case Place::Root:
            break;
    }
    return kRemoval & ~static_cast<ACCESS_MASK>(DELETE);
}

using Sid = std::array<BYTE, SECURITY_MAX_SID_SIZE>;

bool isWellKnown(PSID sid, WELL_KNOWN_SID_TYPE type) {
    return ::IsWellKnownSid(sid, type);
}

ScopedDescriptor descriptorOf(HANDLE file) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (::GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                          /*ppsidOwner=*/nullptr, /*ppsidGroup=*/nullptr, /*ppDacl=*/nullptr, /*ppSacl=*/nullptr,
                          &descriptor) != ERROR_SUCCESS)
        return ScopedDescriptor();
    return ScopedDescriptor(descriptor);
}

PSID ownerOf(PSECURITY_DESCRIPTOR descriptor) {
    PSID owner = nullptr;
    BOOL isDefault = FALSE;
    return ::GetSecurityDescriptorOwner(descriptor, &owner, &isDefault) ? owner : nullptr;
}

ScopedFileHandle openForRights(const std::wstring& path, DWORD rights) {
    return ScopedFileHandle(::CreateFileW(path.c_str(), rights, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                          /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING,
                                          FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                          /*hTemplateFile=*/nullptr));
}

// TrustedInstaller on Windows. All zero, which equals no account, when it cannot be read.
Sid systemDirectoryOwner() {
    Sid copy = {};
    wchar_t directory[MAX_PATH] = {};
    if (::GetSystemDirectoryW(directory, MAX_PATH) == 0) return copy;
    const ScopedFileHandle handle = openForRights(directory, READ_CONTROL);
    const ScopedDescriptor descriptor = handle ? descriptorOf(handle.get()) : ScopedDescriptor();
    const PSID owner = descriptor ? ownerOf(descriptor.get()) : nullptr;
    if (owner) ::CopySid(static_cast<DWORD>(copy.size()), copy.data(), owner);
    return copy;
}

// The account of the service, when it is not LocalSystem and the system knows its name.
std::optional<Sid> sidOf(std::wstring account) {
    if (account.starts_with(L".\\")) account.erase(0, 2); // this machine's own
    Sid sid = {};
    DWORD size = static_cast<DWORD>(sid.size());
    wchar_t domain[256] = {};
    DWORD domainSize = ARRAYSIZE(domain);
    SID_NAME_USE use = {};
    if (account.empty() || account == L"LocalSystem" ||
        !::LookupAccountNameW(/*lpSystemName=*/nullptr, account.c_str(), sid.data(), &size, domain, &domainSize, &use))
        return std::nullopt;
    return sid;
}

bool isTrusted(PSID sid, PSID serviceAccount) {
    if (serviceAccount && ::EqualSid(sid, serviceAccount)) return true;
    if (isWellKnown(sid, WinLocalSystemSid) || isWellKnown(sid, WinBuiltinAdministratorsSid) ||
        isWellKnown(sid, WinCreatorOwnerRightsSid)) // the rights of an owner, who is judged as such
        return true;
    static Sid systemOwner = systemDirectoryOwner();
    return ::IsValidSid(systemOwner.data()) && ::EqualSid(sid, systemOwner.data());
}

std::wstring nameOf(PSID sid) {
    wchar_t name[256] = {};
    wchar_t domain[256] = {};
    DWORD nameSize = ARRAYSIZE(name);
    DWORD domainSize = ARRAYSIZE(domain);
    SID_NAME_USE use = {};
    if (::LookupAccountSidW(/*lpSystemName=*/nullptr, sid, name, &nameSize, domain, &domainSize, &use))
        return domain[0] ? std::wstring(domain) + L'\\' + name : name;
    wchar_t* text = nullptr;
    if (!::ConvertSidToStringSidW(sid, &text)) return L"an unknown account";
    return ScopedText(text).get();
}

// What an entry of an access list allows, and to whom; null for an entry that allows nothing.
PSID allowedTo(ACE_HEADER* entry, Place place, ACCESS_MASK& rights) {
    if (entry->AceType != ACCESS_ALLOWED_ACE_TYPE && entry->AceType != ACCESS_ALLOWED_CALLBACK_ACE_TYPE) return nullptr;
    auto* allowed = reinterpret_cast<ACCESS_ALLOWED_ACE*>(entry);
    const PSID sid = &allowed->SidStart;
    if (entry->AceFlags & INHERIT_ONLY_ACE) {
        // For what is made here later. The creator is one of those who may write here.
        const bool isCreator = isWellKnown(sid, WinCreatorOwnerSid) || isWellKnown(sid, WinCreatorGroupSid);
        if (place != Place::Inside || isCreator) return nullptr;
    }
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    DWORD mask = allowed->Mask;
    ::MapGenericMask(&mask, &mapping);
    rights = mask;
    return sid;
}

// One judgement of a whole directory.
struct Judge {
    std::optional<Sid> serviceAccount;

    std::optional<std::wstring> operator()(const std::wstring& path, Place place) {
        const ScopedFileHandle handle = openForRights(path, READ_CONTROL);
        if (!handle && (::GetLastError() == ERROR_FILE_NOT_FOUND || ::GetLastError() == ERROR_PATH_NOT_FOUND))
            return std::nullopt;
        const ScopedDescriptor descriptor = handle ? descriptorOf(handle.get()) : ScopedDescriptor();
        // Whoever owns a directory can keep even SYSTEM from reading its rights.
        if (!descriptor) return L"the rights of '" + path + L"' cannot be read; it may belong to somebody";
        const std::wstring who =
            whoElseMayChange(descriptor.get(), place, serviceAccount ? serviceAccount->data() : nullptr);
        if (who.empty()) return std::nullopt;
        return L"'" + path + L"' belongs to '" + who + L"' or can be changed by that account";
    }
};

// From the drive's root down to the one above `path`.
std::optional<std::wstring> judgeAbove(Judge& judge, const std::wstring& path) {
    constexpr size_t kRootLength = 3; // "C:\"
    for (size_t end = kRootLength; end < path.size(); end = std::min(path.find(L'\\', end + 1), path.size())) {
        const bool isRoot = end == kRootLength;
        // A root keeps its separator.
        std::optional<std::wstring> found = judge(path.substr(0, end), isRoot ? Place::Root : Place::Above);
        if (found) return found;
    }
    return std::nullopt;
}

// Where a path leads when all links on the way are followed, "C:\..." again; empty where nothing is, or on no drive.
std::wstring followed(const std::wstring& path) {
    const ScopedFileHandle handle(::CreateFileW(
        path.c_str(), /*dwDesiredAccess=*/0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, /*hTemplateFile=*/nullptr));
    constexpr std::wstring_view kPrefix = L"\\\\?\\";
    std::wstring final = handle ? finalPath(handle.get()) : std::wstring();
    return final.starts_with(kPrefix) && final.size() > 6 && final[5] == L':' ? final.substr(kPrefix.size()) : L"";
}

// A security descriptor of this text, which has to be right.
ScopedDescriptor descriptorFrom(const wchar_t* text) {
    PSECURITY_DESCRIPTOR made = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &made, /*size=*/nullptr);
    return ScopedDescriptor(made);
}

std::wstring setRights(const std::wstring& path, PSECURITY_DESCRIPTOR descriptor) {
    const ScopedFileHandle handle = openForRights(path, WRITE_DAC | WRITE_OWNER | READ_CONTROL | FILE_READ_ATTRIBUTES);
    if (!handle) return errorText(::GetLastError());
    if (isLink(handle.get())) return L"'" + path + L"' is a link";
    // By the handle, and without passing anything on: what lies below is set by name.
    const BOOL isSet = ::SetKernelObjectSecurity(
        handle.get(), OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
        descriptor);
    return isSet ? std::wstring() : errorText(::GetLastError());
}

std::wstring makeWith(const std::wstring& directory, const wchar_t* rights) {
    const ScopedDescriptor descriptor = descriptorFrom(rights);
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), descriptor.get(), /*bInheritHandle=*/FALSE};
    if (!descriptor || !::CreateDirectoryW(directory.c_str(), &attributes)) return errorText(::GetLastError());
    return {};
}

} // namespace

std::wstring whoElseMayChange(void* descriptor, Place place, void* serviceAccount) {
    const PSID owner = ownerOf(descriptor);
    if (!owner) return L"nobody";
    if (!isTrusted(owner, serviceAccount)) return nameOf(owner);
    BOOL isPresent = FALSE;
    BOOL isDefault = FALSE;
    PACL list = nullptr;
    if (!::GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefault) || !isPresent || !list)
        return L"everybody";
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* entry = nullptr;
        ACCESS_MASK rights = 0;
        if (!::GetAce(list, i, &entry)) continue;
        const PSID sid = allowedTo(static_cast<ACE_HEADER*>(entry), place, rights);
        if (sid && (rights & harmfulRights(place)) && !isTrusted(sid, serviceAccount)) return nameOf(sid);
    }
    return {};
}

std::optional<std::wstring> reasonDirectoryIsOpen(const std::wstring& directory, const std::wstring& serviceAccount) {
    Judge judge{sidOf(serviceAccount)};
    std::optional<std::wstring> found = judgeAbove(judge, directory);
    const std::wstring behindLinks = followed(directory);
    if (!found && !behindLinks.empty() && !isSamePath(behindLinks, directory)) {
        found = judgeAbove(judge, behindLinks);
        if (!found) found = judge(behindLinks, Place::Inside);
    }
    if (!found) found = judge(directory, Place::Inside);
    if (!found)
        forEachBelow(directory, [&](const std::wstring& path) {
            found = judge(path, Place::Inside);
            return !found;
        });
    return found;
}

std::wstring makeClosedDirectory(const std::wstring& directory) {
    const size_t separator = directory.find_last_of(L'\\');
    if (separator != std::wstring::npos && separator > 2 && !exists(directory.substr(0, separator))) {
        std::wstring failed = makeClosedDirectory(directory.substr(0, separator));
        if (!failed.empty()) return failed;
    }
    return makeWith(directory, kUsersMayRead);
}

std::wstring closeDumps(const std::wstring& directory, const std::wstring& serviceAccount) {
    std::wstring rights = kAdministratorsOnly;
    std::optional<Sid> account = sidOf(serviceAccount);
    wchar_t* name = nullptr;
    if (account && ::ConvertSidToStringSidW(account->data(), &name))
        rights += std::wstring(L"(A;OICI;FA;;;") + ScopedText(name).get() + L")";
    if (!exists(directory)) return makeWith(directory, rights.c_str());
    const ScopedDescriptor descriptor = descriptorFrom(rights.c_str());
    if (!descriptor) return errorText(::GetLastError());
    std::wstring failed = setRights(directory, descriptor.get());
    forEachBelow(directory, [&](const std::wstring& path) {
        if (failed.empty()) failed = setRights(path, descriptor.get());
        return failed.empty();
    });
    return failed;
}

} // namespace setup
