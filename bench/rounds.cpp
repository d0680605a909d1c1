#include "bench/rounds.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>

#include "bench/allocation_counter.h"

namespace bench {
namespace {

double nanosecondsOf(const std::function<void(uint32_t)>& run, uint32_t times) {
    const auto begin = std::chrono::steady_clock::now();
    run(times);
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
}

} // namespace

void Row::fitTimes(Way& way, int64_t roundMicroseconds) {
    while (nanosecondsOf(way.run, way.times) < static_cast<double>(roundMicroseconds) * 1000) way.times *= 2;
}

void Row::measure(int rounds, int64_t roundMicroseconds) {
    for (Way& way : m_ways) {
        fitTimes(way, roundMicroseconds);
        const uint64_t before = allocations();
        way.run(way.times);
        way.allocations = static_cast<double>(allocations() - before) / way.times;
    }
    std::vector<Way*> order;
    for (Way& way : m_ways) order.push_back(&way);
    for (int round = 0; round < rounds; ++round) {
        // In another order each time, because a way can leave work behind for the next one, above all on a disk.
        std::rotate(order.begin(), order.begin() + 1, order.end());
        if (round % static_cast<int>(order.size()) == 0) std::reverse(order.begin(), order.end());
        for (Way* way : order) way->nanoseconds.push_back(nanosecondsOf(way->run, way->times) / way->times);
    }
    for (Way& way : m_ways) {
        std::vector<double>& sorted = way.nanoseconds;
        std::sort(sorted.begin(), sorted.end());
        std::printf("%s\t%s\t%s\t%.2f\t%.2f\t%.2f\t%.2f\t%.2f\t%.2f\n", m_name.c_str(), m_goal.c_str(),
                    way.name.c_str(), sorted[sorted.size() / 2], sorted.front(), sorted[sorted.size() / 10],
                    sorted[sorted.size() - 1 - sorted.size() / 10],
                    std::accumulate(sorted.begin(), sorted.end(), 0.0) / static_cast<double>(sorted.size()),
                    way.allocations);
    }
    std::fflush(stdout);
}

} // namespace bench
