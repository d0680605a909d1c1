#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "tests/support/self_process.h"

using test::SelfProcess;

namespace {

TEST(AssertStop, EndsTheProcessByAWriteToAddressZero) {
    // The sanitizers would catch the signal and exit.
    setenv("ASAN_OPTIONS", "handle_segv=0", /*overwrite=*/1);
    setenv("TSAN_OPTIONS", "handle_segv=0", /*overwrite=*/1);
    for (const char* childName : {"StopByCheck", "StopByAssertion"}) {
        SelfProcess child(childName);
        child.readAll();
        EXPECT_EQ(child.wait(), -SIGSEGV) << childName;
    }
}

} // namespace
