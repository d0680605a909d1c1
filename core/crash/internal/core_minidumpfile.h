#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace NS_CORE {

// Reads `size` bytes of a file at this position. Returns false if the file does not hold them.
using ReadAt = std::function<bool(uint64_t position, void* to, size_t size)>;

// Whether a minidump holds all streams that its directory lists, and all memory that its streams list. Works on any
// bytes.
bool isWholeMinidump(const ReadAt& readAt, uint64_t fileSize);

} // namespace NS_CORE
