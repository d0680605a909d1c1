#include "tests/support/crash_kinds.h"

#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "core/text/core_checkf.h"

namespace test {

// Kept from the sanitizers, which would report the fault in their own way. The volatile pointers keep the compiler
// from knowing where they lead.
#define QUORKERI_FAULTS [[gnu::noinline, gnu::no_sanitize("address", "undefined", "thread")]]

// Outside of the unnamed namespace, where debuggers lose the name of what the compiler has made its own version of.
QUORKERI_FAULTS int overflowStack(int depth);
QUORKERI_FAULTS int overflowStack(int depth) {
    volatile char room[1024];
    room[0] = static_cast<char>(depth);
    // The sum keeps the call from becoming a jump; the condition keeps the compiler from seeing an endless recursion.
    return depth < 0 ? 0 : overflowStack(depth + 1) + room[0];
}

// Not in the unnamed namespace, where the compiler would know that there is no other shape and call it directly.
struct Shape {
    Shape();
    virtual ~Shape() = default;
    Shape(const Shape&) = delete;
    Shape& operator=(const Shape&) = delete;
    virtual void draw() = 0;
};

struct Square : Shape {
    void draw() override {}
};

// Knows nothing of where it is called from, or the compiler would see that the function is missing.
[[gnu::noipa]] void drawShape(Shape& shape) {
    shape.draw();
}

[[gnu::noipa]] Shape::Shape() {
    drawShape(*this);
}

namespace {

QUORKERI_FAULTS void writeNull() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

QUORKERI_FAULTS void readWild() {
    volatile int* volatile wild = reinterpret_cast<volatile int*>(uintptr_t{0x12345678});
    static_cast<void>(*wild);
}

QUORKERI_FAULTS void illegalInstruction() {
    __builtin_trap();
}

QUORKERI_FAULTS void divideByZero() {
    volatile int zero = 0;
    volatile int one = 1;
    one = one / zero;
}

[[gnu::noinline]] void callPureVirtual() {
    const Square square;
}

[[gnu::noinline]] void callAbort() {
    std::abort();
}

[[gnu::noinline]] void throwUncaught() {
    throw std::runtime_error("nobody catches this");
}

[[gnu::noinline]] void callEmptyCallback() {
    const std::function<void()> empty;
    empty();
}

[[gnu::noinline]] void failCheckWithStop() {
    NS_CORE::Assert::installFailureHandler(
        [](const char*, std::string_view, int32_t, int32_t, const std::string&) { return true; });
    static_cast<void>(CHECKF(std::getenv("PATH") == nullptr, ""));
}

std::map<std::string, void (*)()>* allKinds() {
    auto* const all = new std::map<std::string, void (*)()>(platformCrashKinds());
    all->insert({
        {"null", &writeNull},
        {"wild", &readWild},
        {"illegal", &illegalInstruction},
        {"divide", &divideByZero},
        {"overflow", [] { overflowStack(0); }},
        {"pure", &callPureVirtual},
        {"abort", &callAbort},
        {"exception", &throwUncaught},
        {"callback", &callEmptyCallback},
        {"check", &failCheckWithStop},
    });
    return all;
}

// Never destroyed: some crash on the way out of the process.
const std::map<std::string, void (*)()>& g_kinds = *allKinds();

} // namespace

std::vector<std::string> crashKinds() {
    std::vector<std::string> names;
    for (const auto& [name, action] : g_kinds) names.push_back(name);
    return names;
}

void crash(const std::string& kind) {
    if (const auto found = g_kinds.find(kind); found != g_kinds.end()) found->second();
}

} // namespace test
