#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string_view>

#include "tests/support/planted_code.h"

namespace test {
namespace {

void overwrite(void* function, std::string_view code) {
    DWORD before = 0;
    EXPECT_TRUE(::VirtualProtect(function, code.size(), PAGE_EXECUTE_READWRITE, &before));
    std::memcpy(function, code.data(), code.size());
}

} // namespace

void makeFault(void* function) {
    overwrite(function, "\x0f\x0b"); // an undefined instruction
}

void makeHang(void* function) {
    overwrite(function, "\xeb\xfe"); // a jump to itself
}

} // namespace test
