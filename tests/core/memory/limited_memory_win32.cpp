#include "tests/core/memory/limited_memory.h"

namespace test {

// A 32-bit process has no 2 GiB in one piece.
bool limitMemory() {
    return true;
}

} // namespace test
