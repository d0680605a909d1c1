#include "bench/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<uint64_t> g_allocations{0};

} // namespace

void* operator new(size_t size) {
    // Not fetch_add, whose locked instruction costs as much as a small allocation.
    g_allocations.store(g_allocations.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace bench {

uint64_t allocations() {
    return g_allocations.load(std::memory_order_relaxed);
}

} // namespace bench
