#include "core/crash/internal/core_minidumpfile_win32.h"

// dbghelp.h needs windows.h before it.
#include <dbghelp.h>

#include <cstdint>

namespace NS_CORE {
namespace {

constexpr ULONG32 kSignature = 0x504d444d; // "MDMP"

template <class Record>
bool readAt(HANDLE file, DWORD position, Record& record) {
    OVERLAPPED from{};
    from.Offset = position;
    DWORD count = 0;
    return ::ReadFile(file, &record, sizeof(record), &count, &from) != FALSE && count == sizeof(record);
}

bool isWhole(HANDLE file, uint64_t fileSize) {
    MINIDUMP_HEADER header{};
    if (!readAt(file, 0, header) || header.Signature != kSignature) return false;
    for (DWORD index = 0; index < header.NumberOfStreams; ++index) {
        MINIDUMP_DIRECTORY entry{};
        if (!readAt(file, header.StreamDirectoryRva + index * static_cast<DWORD>(sizeof(entry)), entry)) return false;
        if (uint64_t{entry.Location.Rva} + entry.Location.DataSize > fileSize) return false;
    }
    return true;
}

} // namespace

DWORD errorOfWrittenDump(HANDLE file) {
    LARGE_INTEGER size{};
    if (::GetFileSizeEx(file, &size) == FALSE) return ::GetLastError();
    return isWhole(file, static_cast<uint64_t>(size.QuadPart)) ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

} // namespace NS_CORE
