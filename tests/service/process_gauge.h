#pragma once

#include <cstdint>

namespace test {

// What a process that runs for months must not use more and more of.
struct ProcessGauge {
    int64_t handles; // Linux: open descriptors; Windows: the lowest free handle value, which climbs with each leak
    int64_t threads;
    int64_t memoryBytes; // Linux: allocated and not freed (0 where a sanitizer allocates); Windows: private bytes

    static ProcessGauge read();
};

} // namespace test
