#include "core/crash/internal/core_minidumpfile.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t kMany = 0xffffffff;

// A dump of two streams, an empty one and a list of one piece of memory, with that memory at the end.
constexpr std::array<uint32_t, 23> kDump = {
    0x504d444d, 0,     2,     32,    0,  0, 0, 0, // header: "MDMP", version, streams, where their directory is
    3,          0,     32,                        // type, size and position of the first
    5,          20,    56,                        // and of the second
    1,          0,     0,     16,    76,          // the list: one piece, its address, size and position
    kMany,      kMany, kMany, kMany,
};

struct Change {
    size_t word;
    uint32_t value;
};

bool isWhole(const std::vector<Change>& changes, uint64_t fileSize = sizeof(kDump)) {
    auto dump = kDump;
    for (const Change& change : changes) dump.at(change.word) = change.value;
    const auto readAt = [&](uint64_t position, void* to, size_t size) {
        if (position + size > fileSize) return false;
        std::memcpy(to, reinterpret_cast<const char*>(dump.data()) + position, size);
        return true;
    };
    return NS_CORE::isWholeMinidump(readAt, fileSize);
}

TEST(Minidump, IsWholeWhenItHoldsAllThatItLists) {
    for (size_t size = 0; size < sizeof(kDump); ++size) EXPECT_FALSE(isWhole({}, size)) << size;
    const std::vector<std::pair<std::vector<Change>, bool>> table = {
        {{}, true},
        {{{0, 0x504d444c}}, false},    // no dump
        {{{9, kMany}}, false},         // size and position are more than 32 bits hold
        {{{10, sizeof(kDump)}}, true}, // nothing, just behind the end
        {{{10, sizeof(kDump) + 1}}, false},
        {{{12, 36}}, true}, // up to the end
        {{{12, 37}}, false},
        {{{17, 17}}, false},
        {{{17, 17}, {11, 9}}, true},            // no list of memory
        {{{14, 2}}, false},                     // the second piece is what the first one's memory says
        {{{8, 5}, {10, 76}}, false},            // the first stream is such a list, too
        {{{8, 5}, {10, sizeof(kDump)}}, false}, // and its count would stand behind the end
        {{{15, kMany}}, true},                  // the memory's address, which is no third stream
    };
    for (size_t row = 0; row < table.size(); ++row) EXPECT_EQ(isWhole(table[row].first), table[row].second) << row;
}

} // namespace
