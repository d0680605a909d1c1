#include <windows.h>

#include "core/core_rcsname_system.h"

namespace NS_CORE {

bool systemHostName(char* buffer, uint32_t size) {
    DWORD length = size;
    return ::GetComputerNameA(buffer, &length) != 0;
}

} // namespace NS_CORE
