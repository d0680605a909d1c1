#include <gtest/gtest.h>

#include "tests/support/child.h"

// Every test program's: it may be its own child.
int main(int argc, char** argv) {
    if (const std::optional<int> exitCode = test::runAsChild(argc, argv)) return *exitCode;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
