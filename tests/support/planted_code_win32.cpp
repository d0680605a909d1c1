#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>

#include "tests/support/planted_code.h"

namespace test {

void overwrite(void* function, std::string_view code) {
    DWORD before = 0;
    EXPECT_TRUE(::VirtualProtect(function, code.size(), PAGE_EXECUTE_READWRITE, &before));
    std::memcpy(function, code.data(), code.size());
}

} // namespace test
