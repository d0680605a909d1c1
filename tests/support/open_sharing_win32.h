#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>

#include "core/memory/core_scopedhandle_win32.h"

namespace test {

// Opens a file for reading with this share mode, as another program would. Fails the test if it cannot.
inline NS_CORE::ScopedFileHandle openSharing(const std::filesystem::path& path, DWORD share) {
    NS_CORE::ScopedFileHandle handle(::CreateFileW(path.c_str(), GENERIC_READ, share, /*lpSecurityAttributes=*/nullptr,
                                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr));
    EXPECT_TRUE(handle) << ::GetLastError();
    return handle;
}

} // namespace test
