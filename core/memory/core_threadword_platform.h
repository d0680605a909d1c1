#pragma once

#include <cstdint>

// The system's slots for thread-local storage.
namespace NS_CORE::threadword_platform {

// False when no slot is free.
bool allocate(uint32_t* slot);
void release(uint32_t slot);

// Keep the system's last error.
uintptr_t get(uint32_t slot);
void set(uint32_t slot, uintptr_t value);

} // namespace NS_CORE::threadword_platform
