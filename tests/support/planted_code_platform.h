#pragma once

#include <cstddef>

// What planted_code.cpp asks of the platform. For that unit alone.
namespace test {

void allowWriting(void* code, size_t size);

} // namespace test
