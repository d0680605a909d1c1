#include <windows.h>

#include "bench/bare_record.h"

namespace bench {

void writeBareRecord(const char* path, std::string_view line) {
    const HANDLE file = ::CreateFileA(path, FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    ::WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    LARGE_INTEGER size;
    ::GetFileSizeEx(file, &size);
    ::FlushFileBuffers(file);
    ::CloseHandle(file);
}

} // namespace bench
