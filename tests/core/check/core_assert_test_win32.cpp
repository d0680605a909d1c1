#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/self_process.h"

using test::SelfProcess;

namespace {

TEST(AssertStop, EndsTheProcessByAWriteToAddressZero) {
    for (const char* childName : {"StopByCheck", "StopByAssertion"}) {
        SelfProcess child(childName);
        child.readAll();
        EXPECT_EQ(child.wait(), int64_t{EXCEPTION_ACCESS_VIOLATION}) << childName;
    }
}

} // namespace
