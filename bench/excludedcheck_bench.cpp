// A failing check that an administrator has taken out, from the check to the log, against what one would use instead:
// the excluded places in a std::set under a mutex, and the same record to a log that throws it away, which is this
// system's or spdlog's. The list has 32 places. "on": the log's level is on and its sink does nothing; "off": the level
// is off.
//
//     taskset -c 1 excludedcheck_bench --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "bench/allocation_column.h"
#include "core/log/core_v2masterlogger.h"
#include "core/report/core_testinterface.h"
#include "core/text/core_checkf.h"

namespace {

using NS_CORE::MasterLogger;
using NS_CORE::LogLevel::Crit;

enum class Level { On, Off };

// What the usual way would be.
struct Usual {
    std::mutex mutex;
    std::set<std::pair<std::string, int32_t>> places;

    bool contains(std::string_view unit, int32_t line) {
        const std::lock_guard lock(mutex);
        return places.contains({std::string(unit), line});
    }
};

Usual g_usual;
spdlog::logger g_spdlog("bench", std::make_shared<spdlog::sinks::null_sink_mt>());

// The same 32 places for both.
void loadPlaces() {
    namespace fs = std::filesystem;
    const fs::path before = fs::current_path();
    const fs::path work = fs::temp_directory_path() / "excludedcheck_bench.tmp";
    fs::create_directories(work / "settings");
    {
        std::ofstream file(work / "settings/assert.exclude");
        for (int place = 0; place < 32; ++place) {
            const std::string unit = place % 2 == 0 ? "utl_service" : "core_socket" + std::to_string(place);
            file << unit << ' ' << 41 + place << " 2099-12-31\n";
            g_usual.places.emplace(unit, 41 + place);
        }
    }
    fs::current_path(work);
    const bool isLoaded = NS_CORE::TestInterface::instance().loadExclusions();
    fs::current_path(before);
    fs::remove_all(work);
    if (!isLoaded || !NS_CORE::TestInterface::instance().isExcluded("utl_service", 57))
        throw std::runtime_error("exclusions");
}

void prepare(Level level) {
    [[maybe_unused]] static const bool isLoaded = (loadPlaces(), true);
    MasterLogger::setImplementation(nullptr);
    MasterLogger::setLevelFlags(Crit, 0);
    MasterLogger::setLevelImplementationBits(Crit, level == Level::On ? 1 : 0);
    g_spdlog.set_level(level == Level::On ? spdlog::level::trace : spdlog::level::off);
    if (MasterLogger::isOn(Crit) != (level == Level::On)) throw std::runtime_error("level");
}

template <class Check>
void run(benchmark::State& state, Level level, Check check) {
    prepare(level);
    std::string name = "./quorkeri_wrapper.exe";
    const bench::AllocationColumn column(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(name);
        check(name);
    }
}

void thisLibrary(benchmark::State& state, Level level) {
    run(state, level, [](const std::string& name) {
        benchmark::DoNotOptimize(CHECKF_AT("utl_service", 57, name.empty(), "%s", name));
    });
}

void setAndThisLog(benchmark::State& state, Level level) {
    run(state, level, [](const std::string& name) {
        const std::string message = fmt::format("{}", name);
        if (g_usual.contains("utl_service", 57))
            MLOG(Crit, "CORE::Assert::failDefault", "EXCLUDED_ASSERT failed at %s:%d (%s) (%s)", "utl_service", 57,
                 "CHECKF", message);
    });
}

void setAndSpdlog(benchmark::State& state, Level level) {
    run(state, level, [](const std::string& name) {
        const std::string message = fmt::format("{}", name);
        if (g_usual.contains("utl_service", 57))
            g_spdlog.critical("{} - EXCLUDED_ASSERT failed at {}:{} ({}) ({})", "CORE::Assert::failDefault",
                              "utl_service", 57, "CHECKF", message);
    });
}

BENCHMARK_CAPTURE(thisLibrary, on, Level::On);
BENCHMARK_CAPTURE(setAndThisLog, on, Level::On);
BENCHMARK_CAPTURE(setAndSpdlog, on, Level::On);
BENCHMARK_CAPTURE(thisLibrary, off, Level::Off);
BENCHMARK_CAPTURE(setAndThisLog, off, Level::Off);
BENCHMARK_CAPTURE(setAndSpdlog, off, Level::Off);

} // namespace
