#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Makes the compiler believe that somebody reads and writes what `value` refers to.
template <class T>
void touch(T& value) {
    asm volatile("" : : "r"(&value) : "memory");
}

// One thing and several ways to do it, measured on both platforms, on machines that do other things as well: the ways
// take turns in many short rounds, so that a disturbance meets all of them or spoils one round of one.
class Row {
public:
    // name  of the row.
    // goal  for scripts/bench, which judges it: a limit and what it is a multiple of, such as "0.75 fastest".
    Row(std::string name, std::string goal) : m_name(std::move(name)), m_goal(std::move(goal)) {}

    // run  does the thing as often as it is asked to.
    void add(std::string way, std::function<void(uint32_t times)> run) {
        m_ways.push_back({std::move(way), std::move(run), 1, 0, {}});
    }

    // Measures and prints one line for each way to the standard output, separated by tabs: row, goal, way, nanoseconds
    // (median, minimum, tenth and ninetieth percentile, mean) and allocations each time. The first way is ours.
    // roundMicroseconds  how long one way's turn takes at least.
    void measure(int rounds, int64_t roundMicroseconds);

private:
    struct Way {
        std::string name;
        std::function<void(uint32_t)> run;
        uint32_t times; // in each round
        double allocations;
        std::vector<double> nanoseconds;
    };

    static void fitTimes(Way& way, int64_t roundMicroseconds);

    std::string m_name;
    std::string m_goal;
    std::vector<Way> m_ways;
};

} // namespace bench
