#include "bench/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<uint64_t> g_allocations{0};

} // namespace

void* operator new(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
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

AllocationCounter::AllocationCounter(benchmark::State& state) : m_state(state), m_before(g_allocations) {}

AllocationCounter::~AllocationCounter() {
    m_state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(g_allocations - m_before), benchmark::Counter::kAvgIterations);
}

} // namespace bench
