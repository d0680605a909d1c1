// Any bytes are a whole dump or not, as a second reader of the format says, and only as long as none is cut off that
// something in the dump refers to.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/crash/internal/core_minidumpfile.h"
#include "fuzz/require.h"

namespace {

bool isWhole(std::string_view bytes) {
    const auto readAt = [bytes](uint64_t position, void* to, size_t size) {
        if (position > bytes.size() || size > bytes.size() - position) return false;
        std::memcpy(to, bytes.data() + position, size);
        return true;
    };
    return NS_CORE::isWholeMinidump(readAt, bytes.size());
}

// Goes through all that the dump refers to.
struct SecondReader {
    explicit SecondReader(std::string_view dump) : bytes(dump) {
        const bool isDump = word(0) == 0x504d444d;
        word(4);
        const uint32_t streams = word(8);
        const uint64_t directory = word(12);
        for (uint64_t stream = 0; stream < streams && end <= bytes.size(); ++stream)
            readStream(directory + 12 * stream);
        isWhole = isDump && end <= bytes.size();
    }

    uint32_t word(uint64_t at) {
        end = std::max(end, at + 4);
        uint32_t value = 0;
        if (end <= bytes.size()) std::memcpy(&value, bytes.data() + at, sizeof(value));
        return value;
    }

    void readStream(uint64_t entry) {
        const uint32_t type = word(entry);
        const uint64_t list = readLocation(entry + 4);
        if (type != 5) return;
        const uint32_t ranges = word(list);
        for (uint64_t range = 0; range < ranges && end <= bytes.size(); ++range) {
            word(list + 4 + 16 * range);
            readLocation(list + 4 + 16 * range + 8);
        }
    }

    uint64_t readLocation(uint64_t at) {
        const uint32_t size = word(at);
        const uint64_t position = word(at + 4);
        end = std::max(end, position + size);
        return position;
    }

    std::string_view bytes;
    uint64_t end = 0; // of what the dump refers to
    bool isWhole = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const SecondReader reader(bytes);
    require(isWhole(bytes) == reader.isWhole, "the readers disagree");
    if (!reader.isWhole) return 0;
    const auto end = static_cast<size_t>(reader.end);
    require(isWhole(bytes.substr(0, end)), "what nothing refers to is missed");
    require(!isWhole(bytes.substr(0, end - 1)), "a missing byte is not noticed");
    return 0;
}
