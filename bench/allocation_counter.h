#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

// Gives a benchmark's row the column "allocs": allocations per iteration while the object lives, by all threads.
class AllocationCounter {
public:
    explicit AllocationCounter(benchmark::State& state);
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

private:
    benchmark::State& m_state;
    uint64_t m_before;
};

} // namespace bench
