#include <unistd.h>

#include "core/core_rcsname_system.h"

namespace NS_CORE {

bool systemHostName(char* buffer, uint32_t size) {
    return ::gethostname(buffer, size) == 0;
}

} // namespace NS_CORE
