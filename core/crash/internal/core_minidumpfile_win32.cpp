#include "core/crash/internal/core_minidumpfile_win32.h"

#include "core/crash/internal/core_minidumpfile.h"

namespace NS_CORE {

DWORD errorOfWrittenDump(HANDLE file) {
    LARGE_INTEGER fileSize{};
    if (::GetFileSizeEx(file, &fileSize) == FALSE) return ::GetLastError();
    const auto readAt = [file](uint64_t position, void* to, size_t size) {
        OVERLAPPED from{};
        from.Offset = static_cast<DWORD>(position);
        from.OffsetHigh = static_cast<DWORD>(position >> 32);
        DWORD count = 0;
        return ::ReadFile(file, to, static_cast<DWORD>(size), &count, &from) != FALSE && count == size;
    };
    return isWholeMinidump(readAt, static_cast<uint64_t>(fileSize.QuadPart)) ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

} // namespace NS_CORE
