#include <unistd.h>

#include "core/identity/core_rcsname_platform.h"

namespace NS_CORE {

bool systemHostName(char* buffer, uint32_t size) {
    return ::gethostname(buffer, size) == 0;
}

} // namespace NS_CORE
