// Sequences of operations on a GUniqueBuf against a vector that holds the whole allocation.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/check/core_assert.h"
#include "core/memory/core_guniquebuf.h"
#include "fuzz/require.h"

namespace {

using NS_CORE::GUniqueBuf;

constexpr int64_t kMaxSize = std::numeric_limits<int32_t>::max();
constexpr int64_t kMaxTotal = std::numeric_limits<uint32_t>::max();

// What could be allocated, but would be slow to compare, is not tried.
constexpr int64_t kTooSlow = 100;

// Longer sequences find nothing that shorter ones do not.
constexpr int kMaxSteps = 16;

enum class Outcome { Done, OutOfRange, BadAlloc, TooSlow };

int32_t g_failedLine = 0;

bool noteFailure(const char*, std::string_view, int32_t line, int32_t, const std::string&) {
    g_failedLine = line;
    return false;
}

Outcome outcomeOf(int64_t size, int64_t total) {
    if (size < 0 || size > kMaxSize || total > kMaxTotal) return Outcome::BadAlloc;
    return total > kTooSlow ? Outcome::TooSlow : Outcome::Done;
}

// The buffer as its contract describes it.
struct Model {
    static constexpr int kUnknown = -1; // a byte that nobody has written

    std::vector<int> bytes; // the whole allocation
    int64_t head = 0;
    int64_t size = 0;

    bool isNothing() const { return bytes.empty(); }
    int64_t tail() const { return static_cast<int64_t>(bytes.size()) - head - size; }
    int& at(int64_t offset) { return bytes[static_cast<size_t>(head + offset)]; }

    Outcome construct(int64_t newSize, int64_t headRoom, int64_t tailRoom) {
        const Outcome outcome = outcomeOf(newSize, newSize + headRoom + tailRoom);
        if (outcome != Outcome::Done) return outcome;
        bytes.assign(static_cast<size_t>(newSize + headRoom + tailRoom), kUnknown);
        head = isNothing() ? 0 : headRoom;
        size = newSize;
        return outcome;
    }

    Outcome reserve(int64_t headRoom, int64_t tailRoom) {
        const int64_t front = std::max<int64_t>(headRoom - head, 0);
        const int64_t back = std::max<int64_t>(tailRoom - tail(), 0);
        const Outcome outcome = outcomeOf(size, static_cast<int64_t>(bytes.size()) + front + back);
        if (outcome != Outcome::Done) return outcome;
        bytes.insert(bytes.begin(), static_cast<size_t>(front), kUnknown);
        bytes.insert(bytes.end(), static_cast<size_t>(back), kUnknown);
        head += front;
        return outcome;
    }

    Outcome adjust(int64_t front, int64_t back) {
        if (isNothing()) return back < 0 ? Outcome::OutOfRange : construct(back, 0, 0);
        if (size + front + back < 0) return Outcome::OutOfRange;
        if (size + front + back > kMaxSize) return Outcome::BadAlloc;
        const Outcome outcome = reserve(std::max<int64_t>(front, 0), std::max<int64_t>(back, 0));
        if (outcome != Outcome::Done) return outcome;
        head -= front;
        size += front + back;
        return outcome;
    }
};

template <class Call>
Outcome observe(Call call) {
    try {
        call();
    } catch (const std::out_of_range&) {
        return Outcome::OutOfRange;
    } catch (const std::bad_alloc&) {
        return Outcome::BadAlloc;
    }
    return Outcome::Done;
}

// Numbers that meet: small ones mostly, and the ends of their type.
template <class Number>
Number pick(FuzzedDataProvider& input) {
    constexpr Number kLargest = std::numeric_limits<Number>::max();
    constexpr Number kSmallest = std::numeric_limits<Number>::min();
    switch (input.ConsumeIntegral<uint8_t>() % 64) {
        case 0:
            return kLargest;
        case 1:
            return kSmallest;
        case 2:
            return input.ConsumeIntegral<Number>();
        default:
            return input.ConsumeIntegralInRange<Number>(kSmallest < 0 ? static_cast<Number>(-20) : Number{0}, 20);
    }
}

class Run {
public:
    explicit Run(FuzzedDataProvider& input) : m_input(input) {}

    void step() {
        g_failedLine = 0;
        switch (m_input.ConsumeIntegralInRange(0, 4)) {
            case 0:
                construct();
                break;
            case 1:
                reserve();
                break;
            case 2:
                adjust();
                break;
            case 3:
                access();
                break;
            default:
                move();
        }
        compare();
    }

private:
    // Runs `call` on the buffer unless the model says that it would take too long; the two must agree.
    template <class Call>
    void both(Outcome expected, Call call) {
        if (expected == Outcome::TooSlow) return;
        require(observe(call) == expected, "another outcome than the model's");
        require((expected == Outcome::Done) == (g_failedLine == 0), "failed without a check, or the reverse");
    }

    void construct() {
        const auto size = pick<int32_t>(m_input);
        const auto head = pick<uint32_t>(m_input);
        const auto tail = pick<uint32_t>(m_input);
        both(m_model.construct(size, head, tail), [&] { m_buffer = GUniqueBuf(size, head, tail); });
    }

    void reserve() {
        const auto head = pick<uint32_t>(m_input);
        const auto tail = pick<uint32_t>(m_input);
        both(m_model.reserve(head, tail), [&] { m_buffer.reserve(head, tail); });
    }

    void adjust() {
        const auto front = pick<int32_t>(m_input);
        const auto back = pick<int32_t>(m_input);
        both(m_model.adjust(front, back), [&] { m_buffer.adjust(front, back); });
    }

    // Writes a byte where there is one.
    void access() {
        const auto offset = pick<int32_t>(m_input);
        const auto value = m_input.ConsumeIntegral<uint8_t>();
        uint8_t* byte = nullptr;
        const Outcome outcome = observe([&] { byte = m_buffer.dataAt(offset); });
        const bool isBeyond = offset > m_model.size;
        require(outcome == (isBeyond ? Outcome::OutOfRange : Outcome::Done), "an exception, or none");
        if (m_model.isNothing() && !isBeyond) {
            require(byte == nullptr && g_failedLine == 54, "data in nothing");
        } else if (offset >= m_model.size) {
            require(g_failedLine == 46, "a byte behind the data");
        } else if (offset >= -m_model.head) {
            require(byte == m_buffer.data() + offset && g_failedLine == 0, "no byte");
            *byte = value;
            m_model.at(offset) = value;
        }
    }

    void move() {
        GUniqueBuf taken(std::move(m_buffer));
        require(m_buffer.data() == nullptr && m_buffer.size() == 0, "moved from, and still there");
        m_buffer = std::move(taken);
    }

    void compare() {
        require((m_buffer.data() == nullptr) == m_model.isNothing(), "allocated, or not");
        require(m_buffer.size() == m_model.size, "another size");
        require(m_buffer.headRoom() == m_model.head, "another head room");
        require(m_buffer.tailRoom() == m_model.tail(), "another tail room");
        require((m_buffer.toText() == "nullptr") == m_model.isNothing(), "another text");
        const uint8_t* const base = m_buffer.data() - m_model.head;
        for (size_t i = 0; i < m_model.bytes.size(); ++i) {
            require(m_model.bytes[i] == Model::kUnknown || m_model.bytes[i] == base[i], "another byte");
        }
    }

    FuzzedDataProvider& m_input;
    GUniqueBuf m_buffer;
    Model m_model;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    NS_CORE::Assert::installFailureHandler(&noteFailure);
    FuzzedDataProvider input(data, size);
    Run run(input);
    for (int i = 0; i < kMaxSteps && input.remaining_bytes() > 0; ++i) run.step();
    return 0;
}
