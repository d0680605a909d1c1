#pragma once

#include <cstdint>

namespace bench {

// Allocations through operator new since the program started. Exact while a single thread allocates: counting is kept
// so cheap that it does not show in what is measured, and two threads may overwrite each other's count.
uint64_t allocations();

} // namespace bench
