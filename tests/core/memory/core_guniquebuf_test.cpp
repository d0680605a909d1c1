#include "core/memory/core_guniquebuf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "tests/core/memory/limited_memory.h"
#include "tests/support/hook_recorder.h"

namespace {

using NS_CORE::GUniqueBuf;
using test::FailedCheck;

constexpr int32_t kMaxSize = std::numeric_limits<int32_t>::max();
constexpr int32_t kMinSize = std::numeric_limits<int32_t>::min();
constexpr uint32_t kMaxRoom = std::numeric_limits<uint32_t>::max();

static_assert(!std::is_copy_constructible_v<GUniqueBuf> && !std::is_copy_assignable_v<GUniqueBuf>);
static_assert(std::is_nothrow_move_constructible_v<GUniqueBuf> && std::is_nothrow_move_assignable_v<GUniqueBuf>);

// "size head+tail" of a buffer.
std::string shape(const GUniqueBuf& buffer) {
    if (!buffer.data() && buffer.size() == 0 && buffer.headRoom() == 0 && buffer.tailRoom() == 0) return "nothing";
    return std::to_string(buffer.size()) + " " + std::to_string(buffer.headRoom()) + "+" +
           std::to_string(buffer.tailRoom());
}

// Size, head and tail room; the whole allocation holds "0123...".
GUniqueBuf numbered(int32_t size, uint32_t headRoom, uint32_t tailRoom) {
    GUniqueBuf buffer(size, headRoom, tailRoom);
    std::memcpy(buffer.data() - headRoom, "0123456789abcdef", static_cast<size_t>(size) + headRoom + tailRoom);
    return buffer;
}

std::string bytes(const GUniqueBuf& buffer, int32_t offset, int32_t length) {
    return std::string(buffer.data() + offset, buffer.data() + offset + length);
}

std::string address(const void* pointer) {
    std::ostringstream out;
    out << "0x" << std::hex << reinterpret_cast<uintptr_t>(pointer);
    return out.str();
}

// What the exception says that the call throws.
template <class Call>
std::string thrownBy(Call call) {
    try {
        call();
    } catch (const std::out_of_range& error) {
        return error.what();
    } catch (const std::bad_alloc&) {
        return "bad_alloc";
    }
    return "nothing";
}

FailedCheck failed(int32_t line, const std::string& message) {
    return {"CHECKF", "core_guniquebuf", line, 0, message};
}

TEST(GUniqueBuf, WritesItsShapeAsText) {
    GUniqueBuf full(10, 0, 0);
    EXPECT_EQ(shape(full), "10 0+0");
    EXPECT_EQ(full.toText(), address(full.data()) + ":10");
    GUniqueBuf both(10, 3, 4);
    EXPECT_EQ(shape(both), "10 3+4");
    EXPECT_EQ(both.toText(), address(both.data()) + ":10 (" + address(both.data() - 3) + ":3+10+4)");
    std::memset(both.data() - 3, 0x5A, 17); // all of it is there to be written
    GUniqueBuf head(0, 3, 0);
    EXPECT_EQ(head.toText(), address(head.data()) + ":0 (" + address(head.data() - 3) + ":3+0+0)");
    GUniqueBuf tail(1, 0, 2);
    EXPECT_EQ(tail.toText(), address(tail.data()) + ":1 (" + address(tail.data()) + ":0+1+2)");
    for (const GUniqueBuf& nothing : {GUniqueBuf(), GUniqueBuf(0, 0, 0)}) {
        EXPECT_EQ(shape(nothing), "nothing");
        EXPECT_EQ(nothing.toText(), "nullptr");
    }
}

TEST(GUniqueBuf, MovingLeavesNothingBehind) {
    GUniqueBuf first = numbered(3, 1, 2);
    GUniqueBuf second(std::move(first));
    EXPECT_EQ(shape(second) + ' ' + bytes(second, 0, 3), "3 1+2 123");
    EXPECT_EQ(shape(first), "nothing"); // NOLINT(bugprone-use-after-move): its state is promised
    GUniqueBuf third(5);
    third = std::move(second);
    EXPECT_EQ(bytes(third, 0, 3), "123");
    EXPECT_EQ(shape(second), "nothing"); // NOLINT(bugprone-use-after-move)
    GUniqueBuf& same = third;
    third = std::move(same);
    EXPECT_EQ(shape(third) + ' ' + bytes(third, 0, 3), "3 1+2 123");
}

TEST(GUniqueBuf, SizesThatCannotBeCountedAreALackOfMemory) {
    struct Row {
        int32_t size;
        uint32_t head, tail;
        const char* total;
    };
    for (const Row& row : {Row{1, kMaxRoom, 0, "4294967296"}, Row{0, 1, kMaxRoom, "4294967296"},
                           Row{kMaxSize, kMaxRoom, kMaxRoom, "10737418237"}, Row{-1, 0, 0, "4294967295"},
                           Row{-4, 4, 0, "4294967296"}, Row{kMinSize, 0, 0, "2147483648"}}) {
        const test::HookRecorder hook;
        EXPECT_EQ(thrownBy([&] { GUniqueBuf(row.size, row.head, row.tail); }), "bad_alloc");
        EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf_inline", 31, 0,
                                              std::string("failed mallocing") + row.total + " bytes"}));
    }
}

#if SIZE_MAX > UINT32_MAX && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(GUniqueBuf, HasAllThatCanBeCountedWhereTheSystemHasIt) {
    EXPECT_EQ(shape(GUniqueBuf(0, kMaxRoom, 0)), "0 4294967295+0");
    GUniqueBuf most(1);
    most.adjust(0, kMaxSize - 1);
    EXPECT_EQ(shape(most), "2147483647 0+0");
}
#endif

TEST(GUniqueBufReserve, GrowsWhereRoomIsMissingAndKeepsAllElse) {
    struct Row {
        uint32_t head, tail;
        const char* shape;
    };
    for (const Row& row : {Row{0, 0, "3 2+1"}, Row{2, 1, "3 2+1"}, Row{0, 1000, "3 2+1000"}, Row{1000, 0, "3 1000+1"},
                           Row{7, 9, "3 7+9"}, Row{3, 0, "3 3+1"}, Row{0, 2, "3 2+2"}}) {
        GUniqueBuf buffer = numbered(3, 2, 1);
        const uint8_t* const data = buffer.data();
        buffer.reserve(row.head, row.tail);
        EXPECT_EQ(shape(buffer), row.shape);
        EXPECT_EQ(bytes(buffer, -2, 6), "012345");
        if (row.shape == std::string("3 2+1")) {
            EXPECT_EQ(buffer.data(), data);
        }
        std::memset(buffer.data() - buffer.headRoom(), 0x5A, 3 + buffer.headRoom() + buffer.tailRoom());
    }
    for (const Row& row : {Row{3, 4, "0 3+4"}, Row{3, 0, "0 3+0"}, Row{0, 4, "0 0+4"}, Row{0, 0, "nothing"}}) {
        GUniqueBuf nothing;
        nothing.reserve(row.head, row.tail);
        EXPECT_EQ(shape(nothing), row.shape);
    }
}

TEST(GUniqueBufReserve, RoomThatCannotBeCountedFailsAndChangesNothing) {
    const test::HookRecorder hook;
    GUniqueBuf buffer = numbered(3, 2, 1);
    EXPECT_EQ(thrownBy([&] { buffer.reserve(0, kMaxRoom); }), "bad_alloc");
    EXPECT_EQ(thrownBy([&] { buffer.reserve(kMaxRoom, 0); }), "bad_alloc");
    EXPECT_EQ(hook.failures(), (std::vector<FailedCheck>{
                                   failed(402, "4294967300"),
                                   {"CHECKF", "core_guniquebuf_inline", 31, 0, "failed mallocing4294967299 bytes"}}));
    EXPECT_EQ(shape(buffer) + ' ' + bytes(buffer, 0, 3), "3 2+1 234");
}

TEST(GUniqueBufAdjust, WithinTheRoomOnlyTheEndsMove) {
    GUniqueBuf buffer = numbered(3, 4, 5);
    const uint8_t* const base = buffer.data() - 4;
    struct Row {
        int32_t front, back;
        const char *shape, *data;
    };
    for (const Row& row : {Row{4, 5, "12 0+0", "0123456789ab"}, Row{-4, -5, "3 4+5", "456"},
                           Row{-1, 2, "4 5+3", "5678"}, Row{3, -4, "3 2+7", "234"}, Row{0, -3, "0 2+10", ""},
                           Row{0, 3, "3 2+7", "234"}, Row{-3, 0, "0 5+7", ""}, Row{0, 0, "0 5+7", ""}}) {
        buffer.adjust(row.front, row.back);
        EXPECT_EQ(shape(buffer), row.shape);
        EXPECT_EQ(bytes(buffer, 0, buffer.size()), row.data);
        EXPECT_EQ(buffer.data() - buffer.headRoom(), base);
    }
}

TEST(GUniqueBufAdjust, GrowsWhereTheRoomIsNotEnough) {
    for (const auto& [front, back, grown] : {std::tuple(2, 3, "8 0+0"), {0, 3, "6 1+0"}, {2, 0, "5 0+1"}}) {
        GUniqueBuf buffer = numbered(3, 1, 1);
        buffer.adjust(front, back);
        EXPECT_EQ(shape(buffer), grown);
        EXPECT_EQ(bytes(buffer, front, 3), "123");
    }
}

TEST(GUniqueBufAdjust, MakesTheFirstAllocationOfTheBacksSize) {
    for (const int32_t front : {0, 7, -7}) {
        GUniqueBuf buffer;
        buffer.adjust(front, 5);
        EXPECT_EQ(shape(buffer), "5 0+0");
    }
    GUniqueBuf nothing;
    nothing.adjust(0, 0);
    EXPECT_EQ(shape(nothing), "nothing");
}

TEST(GUniqueBufAdjust, ShrinkingBelowNothingFailsAndChangesNothing) {
    const test::HookRecorder hook;
    GUniqueBuf nothing;
    EXPECT_EQ(thrownBy([&] { nothing.adjust(0, -1); }), "GUniqueBuf:adjust");
    EXPECT_EQ(hook.single(), failed(143, "0,-1"));
    EXPECT_EQ(shape(nothing), "nothing");
    for (const auto& [front, back] :
         {std::pair(0, -4), std::pair(-4, 0), std::pair(-2, -2), std::pair(3, -7), std::pair(kMinSize, kMinSize)}) {
        const test::HookRecorder inner;
        GUniqueBuf buffer(3, 4, 5);
        EXPECT_EQ(thrownBy([&] { buffer.adjust(front, back); }), "GUniqueBuf:adjust");
        EXPECT_EQ(inner.single(),
                  failed(157, buffer.toText() + ", delta=" + std::to_string(front) + "," + std::to_string(back)));
        EXPECT_EQ(shape(buffer), "3 4+5");
    }
}

TEST(GUniqueBufAdjust, ASizeThatCannotBeCountedIsALackOfMemory) {
    for (const auto& [front, back, total] :
         {std::tuple(0, kMaxSize, "2147483650"), std::tuple(kMaxSize, 0, "2147483650"),
          std::tuple(kMaxSize, kMaxSize, "4294967297")}) {
        const test::HookRecorder hook;
        GUniqueBuf buffer(3, 4, 5);
        EXPECT_EQ(thrownBy([&] { buffer.adjust(front, back); }), "bad_alloc");
        EXPECT_EQ(hook.single(), failed(402, total));
        EXPECT_EQ(shape(buffer), "3 4+5");
    }
}

TEST(GUniqueBufDataAt, GivesTheBytesInFrontOfTheEnd) {
    GUniqueBuf buffer = numbered(3, 1, 1);
    const GUniqueBuf& constant = buffer;
    for (int32_t offset = -1; offset < 3; ++offset) {
        EXPECT_EQ(buffer.dataAt(offset), buffer.data() + offset);
        EXPECT_EQ(*constant.dataAt(offset), "0123"[offset + 1]);
    }
    *buffer.dataAt(2) = 'z';
    EXPECT_EQ(bytes(buffer, 0, 3), "12z");
}

TEST(GUniqueBufDataAt, OffsetsFromTheEndOnFail) {
    GUniqueBuf buffer(3, 10, 10);
    {
        const test::HookRecorder hook;
        EXPECT_EQ(buffer.dataAt(3), buffer.data() + 3);
        EXPECT_EQ(hook.single(), failed(46, "3,3"));
    }
    for (const int32_t offset : {4, 1000, kMaxSize}) {
        const test::HookRecorder hook;
        EXPECT_EQ(thrownBy([&] { buffer.dataAt(offset); }), "GUniqueBuf:dataAt");
        EXPECT_EQ(hook.single(), failed(46, "3," + std::to_string(offset)));
    }
}

TEST(GUniqueBufDataAt, NothingAllocatedFailsAndIsNull) {
    GUniqueBuf buffer;
    const test::HookRecorder hook;
    EXPECT_EQ(buffer.dataAt(0), nullptr);
    EXPECT_EQ(buffer.dataAt(-1), nullptr);
    EXPECT_EQ(thrownBy([&] { buffer.dataAt(5); }), "GUniqueBuf:dataAt");
    EXPECT_EQ(hook.failures(),
              (std::vector<FailedCheck>{failed(46, "0,0"), failed(54, ""), failed(54, ""), failed(46, "0,5")}));
}

TEST(GUniqueBuf, MemoryThatTheSystemDoesNotHaveIsALackOfMemoryAndChangesNothing) {
    if (!test::limitMemory()) GTEST_SKIP() << "the memory of this build cannot be limited";
    const test::HookRecorder hook;
    EXPECT_EQ(thrownBy([] { GUniqueBuf(kMaxSize, 0, 0); }), "bad_alloc");
    GUniqueBuf buffer = numbered(10, 0, 0);
    EXPECT_EQ(thrownBy([&] { buffer.reserve(0, kMaxSize); }), "bad_alloc");
    EXPECT_EQ(hook.failures(),
              (std::vector<FailedCheck>{{"CHECKF", "core_guniquebuf_inline", 31, 0, "failed mallocing2147483647 bytes"},
                                        failed(402, "2147483657")}));
    EXPECT_EQ(shape(buffer) + ' ' + bytes(buffer, 0, 10), "10 0+0 0123456789");
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(thrownBy([] { GUniqueBuf(100'000'000); }), "nothing") << "a buffer before has kept its memory";
}

// Each of them goes on, with an exception or without, where the hook does not say stop.
TEST(GUniqueBufDeathTest, AFailedCheckEndsTheProcessWhereTheHookSaysStop) {
    test::HookRecorder hook;
    hook.answerStop(true);
    EXPECT_DEATH(GUniqueBuf(1, kMaxRoom, 0), "");
    EXPECT_DEATH(GUniqueBuf(1).reserve(0, kMaxRoom), "");
    EXPECT_DEATH(GUniqueBuf().adjust(0, -1), "");
    EXPECT_DEATH(GUniqueBuf(1).dataAt(1), "");
    EXPECT_DEATH(GUniqueBuf().dataAt(0), "");
}

} // namespace
