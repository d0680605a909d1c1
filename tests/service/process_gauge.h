#pragma once

#include <cstdint>

namespace test {

// What a process that runs for months must not use more and more of.
struct ProcessGauge {
    int64_t handles; // open ones; on Linux descriptors
    int64_t threads;
    int64_t memoryBytes; // Linux: allocated and not freed (0 where a sanitizer allocates); Windows: private bytes

    static ProcessGauge read();
};

} // namespace test
