#include "utl/utl_registry.h"

#include <windows.h>

namespace NS_UTL {

static_assert(RegType::None == REG_NONE && RegType::Sz == REG_SZ && RegType::ExpandSz == REG_EXPAND_SZ &&
              RegType::Binary == REG_BINARY && RegType::Dword == REG_DWORD && RegType::MultiSz == REG_MULTI_SZ);

bool RegistryKey::openKey(const std::string& subKey, Handle* key) {
    HKEY opened = nullptr;
    const LSTATUS result = ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, subKey.c_str(), /*Reserved=*/0, /*lpClass=*/nullptr,
                                             REG_OPTION_NON_VOLATILE, KEY_QUERY_VALUE,
                                             /*lpSecurityAttributes=*/nullptr, &opened, /*lpdwDisposition=*/nullptr);
    if (result != ERROR_SUCCESS) return false;
    *key = opened;
    return true;
}

uint32_t RegistryKey::queryValue(Handle key, const std::string& name, uint32_t* type, uint8_t* buffer,
                                 uint32_t* count) {
    DWORD foundType = REG_NONE;
    DWORD size = *count;
    const LSTATUS result =
        ::RegQueryValueExA(static_cast<HKEY>(key), name.c_str(), /*lpReserved=*/nullptr, &foundType, buffer, &size);
    *type = foundType;
    *count = size;
    return static_cast<uint32_t>(result);
}

} // namespace NS_UTL
