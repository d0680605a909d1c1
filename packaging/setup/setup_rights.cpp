#include "packaging/setup/setup_rights.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include "core/memory/core_scopedhandle.h"
#include "packaging/setup/setup_session.h"

namespace setup {
namespace {

struct DescriptorTraits {
    using Value = PSECURITY_DESCRIPTOR;
    static Value empty() { return nullptr; }
    static void close(Value value) { ::LocalFree(value); }
};
using ScopedDescriptor = NS_CORE::ScopedHandle<DescriptorTraits>;

// Nothing inherited; full rights for SYSTEM and administrators, reading and running for users; for all that lies below.
constexpr const wchar_t* kRights = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FRFX;;;BU)";

} // namespace

std::wstring protectDirectory(const std::wstring& directory) {
    PSECURITY_DESCRIPTOR made = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kRights, SDDL_REVISION_1, &made, /*size=*/nullptr))
        return errorText(::GetLastError());
    const ScopedDescriptor descriptor(made);
    BOOL isPresent = FALSE;
    BOOL isDefault = FALSE;
    PACL list = nullptr;
    if (!::GetSecurityDescriptorDacl(descriptor.get(), &isPresent, &list, &isDefault))
        return errorText(::GetLastError());
    std::wstring name = directory; // the call takes a text that it might change
    const DWORD error = ::SetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT,
                                                DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                                /*psidOwner=*/nullptr, /*psidGroup=*/nullptr, list, /*pSacl=*/nullptr);
    return error == ERROR_SUCCESS ? std::wstring() : errorText(error);
}

} // namespace setup
