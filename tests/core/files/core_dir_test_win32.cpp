#include <gtest/gtest.h>

#include <vector>

#include "core/files/core_dir_platform.h"
#include "tests/support/child.h"

namespace NS_CORE {
namespace {

// A program whose path has 260 characters or more does not start here, so that the buffer is made to fit the path.
TEST(DirWin32, APathThatFillsTheBufferCountsAsCut) {
    const size_t length = test::thisProgram().size();
    std::vector<char> buffer(length + 1);
    EXPECT_EQ(dir_platform::readModuleFilename(buffer.data(), length), length);
    EXPECT_EQ(dir_platform::readModuleFilename(buffer.data(), length - 1), length - 1);
    EXPECT_EQ(dir_platform::readModuleFilename(buffer.data(), length + 1), length);
    EXPECT_EQ(buffer.data(), test::thisProgram());
}

} // namespace
} // namespace NS_CORE
