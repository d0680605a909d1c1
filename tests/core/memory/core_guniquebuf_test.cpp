#include "core/memory/core_guniquebuf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

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
    if (buffer.data() == nullptr) return "nothing";
    return std::to_string(buffer.size()) + " " + std::to_string(buffer.headRoom()) + "+" +
           std::to_string(buffer.tailRoom());
}

void fill(GUniqueBuf& buffer, const std::string& bytes) {
    ASSERT_EQ(static_cast<size_t>(buffer.size()), bytes.size());
    std::memcpy(buffer.data(), bytes.data(), bytes.size());
}

std::string bytes(const GUniqueBuf& buffer, int32_t offset, int32_t length) {
    return std::string(buffer.data() + offset, buffer.data() + offset + length);
}

std::string address(const void* pointer) {
    std::ostringstream out;
    out << "0x" << std::hex << reinterpret_cast<uintptr_t>(pointer);
    return out.str();
}

template <class Exception, class Call>
std::string textOf(Call call) {
    try {
        call();
    } catch (const Exception& error) {
        return error.what();
    }
    return "no exception";
}

// Construction and ownership.

TEST(GUniqueBuf, ABufferWithoutRoomFillsItsAllocation) {
    GUniqueBuf buffer(10, 0, 0);
    EXPECT_EQ(shape(buffer), "10 0+0");
    EXPECT_EQ(buffer.toText(), address(buffer.data()) + ":10");
}

TEST(GUniqueBuf, RoomLiesBeforeAndBehindTheData) {
    GUniqueBuf buffer(10, 3, 4);
    EXPECT_EQ(shape(buffer), "10 3+4");
    EXPECT_EQ(buffer.toText(), address(buffer.data()) + ":10 (" + address(buffer.data() - 3) + ":3+10+4)");
    // All of it is there to be written.
    std::memset(buffer.data() - 3, 0x5A, 17);
}

TEST(GUniqueBuf, RoomOnOneSideIsToldToo) {
    GUniqueBuf head(0, 3, 0);
    EXPECT_EQ(head.toText(), address(head.data()) + ":0 (" + address(head.data() - 3) + ":3+0+0)");
    GUniqueBuf tail(1, 0, 2);
    EXPECT_EQ(tail.toText(), address(tail.data()) + ":1 (" + address(tail.data()) + ":0+1+2)");
}

TEST(GUniqueBuf, NothingIsAllocatedForNothing) {
    const test::HookRecorder hook;
    for (const GUniqueBuf& buffer : {GUniqueBuf(), GUniqueBuf(0, 0, 0)}) {
        EXPECT_EQ(buffer.data(), nullptr);
        EXPECT_EQ(buffer.size(), 0);
        EXPECT_EQ(buffer.headRoom(), 0U);
        EXPECT_EQ(buffer.tailRoom(), 0U);
        EXPECT_EQ(buffer.toText(), "nullptr");
    }
    EXPECT_TRUE(hook.failures().empty());
}

TEST(GUniqueBuf, MovingLeavesNothingBehind) {
    GUniqueBuf first(3, 1, 2);
    fill(first, "abc");
    GUniqueBuf second(std::move(first));
    EXPECT_EQ(shape(second), "3 1+2");
    EXPECT_EQ(bytes(second, 0, 3), "abc");
    EXPECT_EQ(shape(first), "nothing"); // NOLINT(bugprone-use-after-move): its state is promised
    GUniqueBuf third(5);
    third = std::move(second);
    EXPECT_EQ(bytes(third, 0, 3), "abc");
    EXPECT_EQ(shape(second), "nothing"); // NOLINT(bugprone-use-after-move)
    first = GUniqueBuf(1);
    EXPECT_EQ(shape(first), "1 0+0");
}

TEST(GUniqueBuf, MovingOntoItselfKeepsTheData) {
    GUniqueBuf buffer(3, 1, 2);
    fill(buffer, "abc");
    GUniqueBuf& same = buffer;
    buffer = std::move(same);
    EXPECT_EQ(shape(buffer), "3 1+2");
    EXPECT_EQ(bytes(buffer, 0, 3), "abc");
}

TEST(GUniqueBuf, SizesThatCannotBeCountedFailLikeALackOfMemory) {
    for (const auto& [size, head, tail, total] :
         {std::tuple(1, kMaxRoom, 0U, "4294967296"), std::tuple(0, 1U, kMaxRoom, "4294967296"),
          std::tuple(kMaxSize, kMaxRoom, kMaxRoom, "10737418237"), std::tuple(-1, 0U, 0U, "4294967295"),
          std::tuple(-4, 4U, 0U, "4294967296"), std::tuple(kMinSize, 0U, 0U, "2147483648")}) {
        const test::HookRecorder hook;
        EXPECT_THROW(GUniqueBuf(size, head, tail), std::bad_alloc);
        const FailedCheck failure = hook.single();
        EXPECT_EQ(failure.expression, "CHECKF");
        EXPECT_EQ(failure.file, "core_guniquebuf_inline");
        EXPECT_EQ(failure.level, 0);
        EXPECT_EQ(failure.message, std::string("failed mallocing") + total + " bytes");
    }
}

TEST(GUniqueBufDeathTest, ALackOfMemoryEndsTheProcessWhereTheHookSaysStop) {
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            GUniqueBuf(1, kMaxRoom, 0);
        },
        "");
}

// Room.

TEST(GUniqueBufReserve, RoomThatIsThereIsLeftAlone) {
    GUniqueBuf buffer(3, 4, 5);
    const uint8_t* const data = buffer.data();
    buffer.reserve(4, 5);
    buffer.reserve(0, 0);
    EXPECT_EQ(buffer.data(), data);
    EXPECT_EQ(shape(buffer), "3 4+5");
}

TEST(GUniqueBufReserve, GrowsAtTheBackAndKeepsAllElse) {
    GUniqueBuf buffer(3, 2, 1);
    std::memcpy(buffer.data() - 2, "<<abc>", 6);
    buffer.reserve(0, 1000);
    EXPECT_EQ(shape(buffer), "3 2+1000");
    EXPECT_EQ(bytes(buffer, -2, 6), "<<abc>");
    std::memset(buffer.data() + 3, 0x5A, 1000);
}

TEST(GUniqueBufReserve, GrowsAtTheFrontAndKeepsAllElse) {
    GUniqueBuf buffer(3, 2, 1);
    std::memcpy(buffer.data() - 2, "<<abc>", 6);
    buffer.reserve(1000, 0);
    EXPECT_EQ(shape(buffer), "3 1000+1");
    EXPECT_EQ(bytes(buffer, -2, 6), "<<abc>");
    std::memset(buffer.data() - 1000, 0x5A, 1000);
}

TEST(GUniqueBufReserve, GrowsAtBothEnds) {
    GUniqueBuf buffer(3, 2, 1);
    std::memcpy(buffer.data() - 2, "<<abc>", 6);
    buffer.reserve(7, 9);
    EXPECT_EQ(shape(buffer), "3 7+9");
    EXPECT_EQ(bytes(buffer, -2, 6), "<<abc>");
    std::memset(buffer.data() - 7, 0x5A, 19);
}

TEST(GUniqueBufReserve, MakesTheFirstAllocation) {
    GUniqueBuf both;
    both.reserve(3, 4);
    EXPECT_EQ(shape(both), "0 3+4");
    GUniqueBuf front;
    front.reserve(3, 0);
    EXPECT_EQ(shape(front), "0 3+0");
    GUniqueBuf back;
    back.reserve(0, 4);
    EXPECT_EQ(shape(back), "0 0+4");
    GUniqueBuf nothing;
    nothing.reserve(0, 0);
    EXPECT_EQ(shape(nothing), "nothing");
}

TEST(GUniqueBufReserve, RoomAtTheBackThatCannotBeCountedFailsAndChangesNothing) {
    const test::HookRecorder hook;
    GUniqueBuf buffer(3, 2, 1);
    fill(buffer, "abc");
    EXPECT_THROW(buffer.reserve(0, kMaxRoom), std::bad_alloc);
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf", 402, 0, "4294967300"}));
    EXPECT_EQ(shape(buffer), "3 2+1");
    EXPECT_EQ(bytes(buffer, 0, 3), "abc");
}

TEST(GUniqueBufReserve, RoomAtTheFrontThatCannotBeCountedFailsAndChangesNothing) {
    const test::HookRecorder hook;
    GUniqueBuf buffer(3, 2, 1);
    fill(buffer, "abc");
    EXPECT_THROW(buffer.reserve(kMaxRoom, 0), std::bad_alloc);
    EXPECT_EQ(hook.single().file, "core_guniquebuf_inline");
    EXPECT_EQ(hook.single().message, "failed mallocing4294967299 bytes");
    EXPECT_EQ(shape(buffer), "3 2+1");
    EXPECT_EQ(bytes(buffer, 0, 3), "abc");
}

TEST(GUniqueBufDeathTest, AFailedGrowthEndsTheProcessWhereTheHookSaysStop) {
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            GUniqueBuf(1).reserve(0, kMaxRoom);
        },
        "");
}

// The valid range.

TEST(GUniqueBufAdjust, WithinTheRoomOnlyTheEndsMove) {
    GUniqueBuf buffer(3, 4, 5);
    std::memcpy(buffer.data() - 4, "0123abc56789", 12);
    const uint8_t* const base = buffer.data() - 4;
    buffer.adjust(4, 5);
    EXPECT_EQ(shape(buffer), "12 0+0");
    EXPECT_EQ(bytes(buffer, 0, 12), "0123abc56789");
    buffer.adjust(-4, -5);
    EXPECT_EQ(shape(buffer), "3 4+5");
    EXPECT_EQ(bytes(buffer, 0, 3), "abc");
    buffer.adjust(-1, 2);
    EXPECT_EQ(bytes(buffer, 0, 4), "bc56");
    buffer.adjust(3, -4);
    EXPECT_EQ(bytes(buffer, 0, 3), "23a");
    EXPECT_EQ(buffer.data() - buffer.headRoom(), base);
}

TEST(GUniqueBufAdjust, ADataRangeCanBeEmptied) {
    const test::HookRecorder hook;
    GUniqueBuf buffer(3, 0, 0);
    buffer.adjust(0, -3);
    EXPECT_EQ(shape(buffer), "0 0+3");
    buffer.adjust(0, 3);
    buffer.adjust(-3, 0);
    EXPECT_EQ(shape(buffer), "0 3+0");
    buffer.adjust(0, 0);
    EXPECT_EQ(shape(buffer), "0 3+0");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(GUniqueBufAdjust, GrowsWhereTheRoomIsNotEnough) {
    GUniqueBuf buffer(3, 0, 0);
    fill(buffer, "abc");
    buffer.adjust(0, 100);
    EXPECT_EQ(shape(buffer), "103 0+0");
    EXPECT_EQ(bytes(buffer, 0, 3), "abc");
    buffer.adjust(100, 0);
    EXPECT_EQ(shape(buffer), "203 0+0");
    EXPECT_EQ(bytes(buffer, 100, 3), "abc");
    buffer.adjust(1, 1);
    EXPECT_EQ(shape(buffer), "205 0+0");
    EXPECT_EQ(bytes(buffer, 101, 3), "abc");
    std::memset(buffer.data(), 0x5A, 205);
}

TEST(GUniqueBufAdjust, OneEndMayShrinkWhileTheOtherGrows) {
    GUniqueBuf buffer(6, 0, 0);
    fill(buffer, "abcdef");
    buffer.adjust(-2, 10);
    EXPECT_EQ(shape(buffer), "14 2+0");
    EXPECT_EQ(bytes(buffer, 0, 4), "cdef");
    buffer.adjust(10, -10);
    EXPECT_EQ(shape(buffer), "14 0+10");
    EXPECT_EQ(bytes(buffer, 8, 6), "abcdef");
}

TEST(GUniqueBufAdjust, MakesTheFirstAllocationOfTheBacksSize) {
    const test::HookRecorder hook;
    GUniqueBuf buffer;
    buffer.adjust(0, 5);
    EXPECT_EQ(shape(buffer), "5 0+0");
    GUniqueBuf frontToo;
    frontToo.adjust(7, 5);
    EXPECT_EQ(shape(frontToo), "5 0+0");
    GUniqueBuf frontLess;
    frontLess.adjust(-7, 5);
    EXPECT_EQ(shape(frontLess), "5 0+0");
    GUniqueBuf nothing;
    nothing.adjust(0, 0);
    EXPECT_EQ(shape(nothing), "nothing");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(GUniqueBufAdjust, ShrinkingNothingFails) {
    const test::HookRecorder hook;
    GUniqueBuf buffer;
    EXPECT_EQ(textOf<std::out_of_range>([&] { buffer.adjust(0, -1); }), "GUniqueBuf:adjust");
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf", 143, 0, "0,-1"}));
    EXPECT_EQ(shape(buffer), "nothing");
}

TEST(GUniqueBufAdjust, ShrinkingBelowNothingFailsAndChangesNothing) {
    for (const auto& [front, back] :
         {std::pair(0, -4), std::pair(-4, 0), std::pair(-2, -2), std::pair(3, -7), std::pair(kMinSize, kMinSize)}) {
        const test::HookRecorder hook;
        GUniqueBuf buffer(3, 4, 5);
        EXPECT_EQ(textOf<std::out_of_range>([&] { buffer.adjust(front, back); }), "GUniqueBuf:adjust");
        EXPECT_EQ(hook.single(),
                  (FailedCheck{"CHECKF", "core_guniquebuf", 157, 0,
                               buffer.toText() + ", delta=" + std::to_string(front) + "," + std::to_string(back)}));
        EXPECT_EQ(shape(buffer), "3 4+5");
    }
}

TEST(GUniqueBufAdjust, ASizeThatCannotBeCountedFailsLikeALackOfMemory) {
    for (const auto& [front, back, message] :
         {std::tuple(0, kMaxSize, "2147483650"), std::tuple(kMaxSize, 0, "2147483650"),
          std::tuple(kMaxSize, kMaxSize, "4294967297")}) {
        const test::HookRecorder hook;
        GUniqueBuf buffer(3, 4, 5);
        EXPECT_THROW(buffer.adjust(front, back), std::bad_alloc);
        EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf", 402, 0, message}));
        EXPECT_EQ(shape(buffer), "3 4+5");
    }
}

TEST(GUniqueBufDeathTest, AWrongAdjustmentEndsTheProcessWhereTheHookSaysStop) {
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            GUniqueBuf().adjust(0, -1);
        },
        "");
}

// Access.

TEST(GUniqueBufDataAt, GivesEachByteOfTheData) {
    const test::HookRecorder hook;
    GUniqueBuf buffer(3, 1, 1);
    fill(buffer, "abc");
    for (int32_t offset = 0; offset < 3; ++offset) EXPECT_EQ(*buffer.dataAt(offset), "abc"[offset]);
    EXPECT_TRUE(hook.failures().empty());
}

TEST(GUniqueBufDataAt, TheEndFailsTheCheck) {
    const test::HookRecorder hook;
    GUniqueBuf buffer(3);
    EXPECT_EQ(buffer.dataAt(3), buffer.data() + 3);
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf", 46, 0, "3,3"}));
}

TEST(GUniqueBufDataAt, OffsetsOutsideTheDataFailAndThrow) {
    for (const int32_t offset : {4, 1000, kMaxSize, -1, kMinSize}) {
        const test::HookRecorder hook;
        GUniqueBuf buffer(3, 10, 10);
        EXPECT_EQ(textOf<std::out_of_range>([&] { buffer.dataAt(offset); }), "GUniqueBuf:dataAt");
        EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf", 46, 0, "3," + std::to_string(offset)}));
    }
}

TEST(GUniqueBufDataAt, NothingAllocatedFailsAndIsNull) {
    for (const int32_t offset : {0, 5, -1}) {
        const test::HookRecorder hook;
        GUniqueBuf buffer;
        EXPECT_EQ(buffer.dataAt(offset), nullptr);
        EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_guniquebuf", 54, 0, ""}));
    }
}

TEST(GUniqueBufDeathTest, AWrongOffsetEndsTheProcessWhereTheHookSaysStop) {
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            GUniqueBuf(1).dataAt(1);
        },
        "");
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            GUniqueBuf().dataAt(0);
        },
        "");
}

} // namespace
