#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// What core_wrapper.cpp asks of the platform. For that unit alone.
namespace NS_CORE::wrapper_platform {

// A path for one call: as the caller gave it, and converted if `useWide` selects the wide form of the call.
struct Path {
    const std::string& narrow;
    std::u16string wide;
    bool useWide;
};

// Whether the system's calls have a narrow form to choose at all.
bool hasNarrowForm();

int open(const Path& path, int openFlags, int permissionMode);
int unlink(const Path& path);
// Sets the mode 0600.
int makeWritable(const Path& path);
std::FILE* fopen(const Path& path, const Path& mode);

int32_t read(int fd, void* data, int32_t length);
int32_t write(int fd, const void* data, int32_t length);

} // namespace NS_CORE::wrapper_platform
