#include <windows.h>

#include "core/identity/core_rcsname_platform.h"

namespace NS_CORE {

bool systemHostName(char* buffer, uint32_t size) {
    DWORD length = size;
    return ::GetComputerNameA(buffer, &length) != 0;
}

} // namespace NS_CORE
