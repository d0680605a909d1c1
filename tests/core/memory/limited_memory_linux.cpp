#include "tests/core/memory/limited_memory.h"

#include <sys/resource.h>

namespace test {

bool limitMemory() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers' own memory does not fit any limit, and their malloc ends the process instead of failing.
    return false;
#else
    const rlimit limit{1U << 30, 1U << 30};
    return ::setrlimit(RLIMIT_AS, &limit) == 0;
#endif
}

} // namespace test
