#include <pthread.h>

#include "core/memory/core_threadword_platform.h"

namespace NS_CORE::threadword_platform {

bool allocate(uint32_t* slot) {
    return ::pthread_key_create(slot, /*destructor=*/nullptr) == 0;
}

void release(uint32_t slot) {
    ::pthread_key_delete(slot);
}

uintptr_t get(uint32_t slot) {
    return reinterpret_cast<uintptr_t>(::pthread_getspecific(slot));
}

void set(uint32_t slot, uintptr_t value) {
    ::pthread_setspecific(slot, reinterpret_cast<const void*>(value)); // NOLINT(performance-no-int-to-ptr): a number
}

} // namespace NS_CORE::threadword_platform
