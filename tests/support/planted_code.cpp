#include "tests/support/planted_code.h"

#include <cstring>
#include <string_view>

#include "tests/support/planted_code_platform.h"

namespace test {
namespace {

void overwrite(void* function, std::string_view code) {
    allowWriting(function, code.size());
    std::memcpy(function, code.data(), code.size());
}

} // namespace

void makeFault(void* function) {
    overwrite(function, "\x0f\x0b"); // an instruction that is none
}

void makeHang(void* function) {
    overwrite(function, "\xeb\xfe"); // a jump to itself
}

} // namespace test
