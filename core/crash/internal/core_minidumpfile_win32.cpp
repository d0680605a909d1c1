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

bool isInFile(const MINIDUMP_LOCATION_DESCRIPTOR& location, uint64_t fileSize) {
    return uint64_t{location.Rva} + location.DataSize <= fileSize;
}

// Whether the bytes of all listed memory are in the file.
bool hasMemory(HANDLE file, DWORD list, uint64_t fileSize) {
    ULONG32 count = 0;
    if (!readAt(file, list, count)) return false;
    for (DWORD index = 0; index < count; ++index) {
        MINIDUMP_MEMORY_DESCRIPTOR range{};
        const DWORD position = list + sizeof(count) + index * static_cast<DWORD>(sizeof(range));
        if (!readAt(file, position, range) || !isInFile(range.Memory, fileSize)) return false;
    }
    return true;
}

bool isWhole(HANDLE file, uint64_t fileSize) {
    MINIDUMP_HEADER header{};
    if (!readAt(file, 0, header) || header.Signature != kSignature) return false;
    for (DWORD index = 0; index < header.NumberOfStreams; ++index) {
        MINIDUMP_DIRECTORY stream{};
        const DWORD position = header.StreamDirectoryRva + index * static_cast<DWORD>(sizeof(stream));
        if (!readAt(file, position, stream) || !isInFile(stream.Location, fileSize)) return false;
        if (stream.StreamType == MemoryListStream && !hasMemory(file, stream.Location.Rva, fileSize)) return false;
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
