#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"

// Every test program's: it may be its own child.
int main(int argc, char** argv) {
    if (const std::optional<int> exitCode = test::runAsChild(argc, argv)) return *exitCode;
    testing::InitGoogleTest(&argc, argv);
    test::failTestsOnFailedChecks();
    return RUN_ALL_TESTS();
}

// Read by the thread sanitizer where there is one. Abseil's mutex hides its own workings from the sanitizer, which
// then does not see how the memory that a thread waits on is handed to the thread that wakes it.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "race:synchronization_internal::Waiter::Post\n";
}

// Read by the address sanitizer where there is one. It would unmap the alternate signal stack of a thread that ends, as
// if it were its own, although the crash guard has installed another one.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "use_sigaltstack=0";
}
