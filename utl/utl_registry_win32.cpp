#include <windows.h>

#include "utl/utl_registry_platform.h"
#include "utl/utl_regtype.h"

namespace NS_UTL {

static_assert(RegType::None == REG_NONE && RegType::Sz == REG_SZ && RegType::ExpandSz == REG_EXPAND_SZ &&
              RegType::Binary == REG_BINARY && RegType::Dword == REG_DWORD && RegType::MultiSz == REG_MULTI_SZ);

void* registry_platform::openKey(const std::string& subKey) {
    HKEY key = nullptr;
    const LSTATUS result = ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, subKey.c_str(), /*Reserved=*/0, /*lpClass=*/nullptr,
                                             REG_OPTION_NON_VOLATILE, KEY_QUERY_VALUE,
                                             /*lpSecurityAttributes=*/nullptr, &key, /*lpdwDisposition=*/nullptr);
    return result == ERROR_SUCCESS ? key : nullptr;
}

uint32_t registry_platform::queryValue(void* key, const std::string& name, uint32_t& type, uint8_t* buffer,
                                       uint32_t& count) {
    DWORD foundType = REG_NONE;
    DWORD size = count;
    const LSTATUS result =
        ::RegQueryValueExA(static_cast<HKEY>(key), name.c_str(), /*lpReserved=*/nullptr, &foundType, buffer, &size);
    type = foundType;
    count = size;
    return static_cast<uint32_t>(result);
}

} // namespace NS_UTL
