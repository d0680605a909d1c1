#include "core/crash/internal/core_minidumpfile.h"

namespace NS_CORE {
namespace {

constexpr uint32_t kSignature = 0x504d444d; // "MDMP"
constexpr uint32_t kMemoryListStream = 5;

// The file's own structures, of which only these fields matter here. All numbers are little-endian, as the processors
// are that this is built for.
struct Header {
    uint32_t signature;
    uint32_t version;
    uint32_t streamCount;
    uint32_t directory; // where it begins
};
struct Location {
    uint32_t size;
    uint32_t position;
};
struct DirectoryEntry {
    uint32_t type;
    Location stream;
};
struct MemoryRange {
    uint32_t address[2];
    Location bytes;
};

template <class Record>
bool readRecord(const ReadAt& readAt, uint64_t position, Record& record) {
    return readAt(position, &record, sizeof(record));
}

bool isInFile(const Location& location, uint64_t fileSize) {
    return uint64_t{location.position} + location.size <= fileSize;
}

// Whether the bytes of all listed memory are in the file.
bool hasMemory(const ReadAt& readAt, uint64_t list, uint64_t fileSize) {
    uint32_t count = 0;
    if (!readRecord(readAt, list, count)) return false;
    uint64_t position = list + sizeof(count);
    for (uint32_t index = 0; index < count; ++index, position += sizeof(MemoryRange)) {
        MemoryRange range;
        if (!readRecord(readAt, position, range) || !isInFile(range.bytes, fileSize)) return false;
    }
    return true;
}

} // namespace

bool isWholeMinidump(const ReadAt& readAt, uint64_t fileSize) {
    Header header;
    if (!readRecord(readAt, 0, header) || header.signature != kSignature) return false;
    uint64_t position = header.directory;
    for (uint32_t index = 0; index < header.streamCount; ++index, position += sizeof(DirectoryEntry)) {
        DirectoryEntry entry;
        if (!readRecord(readAt, position, entry) || !isInFile(entry.stream, fileSize)) return false;
        if (entry.type == kMemoryListStream && !hasMemory(readAt, entry.stream.position, fileSize)) return false;
    }
    return true;
}

} // namespace NS_CORE
