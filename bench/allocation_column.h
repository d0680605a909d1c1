#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

#include "bench/allocation_counter.h"

namespace bench {

// Gives a Google Benchmark's row the column "allocs": allocations per iteration while the object lives.
class AllocationColumn {
public:
    explicit AllocationColumn(benchmark::State& state) : m_state(state), m_before(allocations()) {}
    ~AllocationColumn() {
        m_state.counters["allocs"] =
            benchmark::Counter(static_cast<double>(allocations() - m_before), benchmark::Counter::kAvgIterations);
    }
    AllocationColumn(const AllocationColumn&) = delete;
    AllocationColumn& operator=(const AllocationColumn&) = delete;

private:
    benchmark::State& m_state;
    uint64_t m_before;
};

} // namespace bench
