// A trace of 20 frames as text, by ours and by what a program could use instead: Boost's stack traces with the
// compiler's symbol library, which give the same (names, files, lines), and the C library's, which give less (exported
// names).
//
// Cold is the first trace of a process, warm any later one. Each cold sample runs in a process of its own, forked
// before this one has traced anything, so the cold ones must come first.
#define BOOST_STACKTRACE_USE_BACKTRACE

#include <benchmark/benchmark.h>
#include <execinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/stacktrace.hpp>
#include <chrono>
#include <cstdlib>
#include <string>

#include "core/stack/core_stacktrace.h"

namespace {

constexpr int kFrames = 20;

using Tracer = std::string (*)();

std::string traceWithOurs() {
    return NS_CORE::StackTrace().toText();
}

std::string traceWithBoost() {
    return boost::stacktrace::to_string(boost::stacktrace::stacktrace(/*skip=*/0, kFrames));
}

std::string traceWithLibrary() {
    void* addresses[kFrames];
    const int count = ::backtrace(addresses, kFrames);
    char** const names = ::backtrace_symbols(addresses, count);
    std::string text;
    for (int index = 0; index < count; ++index) text.append(names[index]).append("\n");
    std::free(names);
    return text;
}

volatile int g_sink = 0;

std::string descend(int depth, Tracer tracer);

[[gnu::noinline]] std::string descendOdd(int depth, Tracer tracer) {
    std::string text = descend(depth - 1, tracer);
    g_sink = depth;
    return text;
}

// Two functions in turn, as no program calls itself alone twenty times.
[[gnu::noinline]] std::string descend(int depth, Tracer tracer) {
    std::string text = depth > 0 ? descendOdd(depth - 1, tracer) : tracer();
    g_sink = depth;
    return text;
}

// With what the program has above main and below, twenty in all.
constexpr int kOwnDepth = 12;

double secondsOf(Tracer tracer) {
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(descend(kOwnDepth, tracer));
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double secondsInFreshProcess(Tracer tracer) {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    const pid_t child = ::fork();
    if (child == 0) {
        const double seconds = secondsOf(tracer);
        ::_exit(::write(ends[1], &seconds, sizeof(seconds)) == sizeof(seconds) ? 0 : 1);
    }
    double seconds = 0;
    ::close(ends[1]);
    if (::read(ends[0], &seconds, sizeof(seconds)) != sizeof(seconds)) std::abort();
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return seconds;
}

void cold(benchmark::State& state, Tracer tracer) {
    for (auto _ : state) state.SetIterationTime(secondsInFreshProcess(tracer));
}

void warm(benchmark::State& state, Tracer tracer) {
    std::string text = descend(kOwnDepth, tracer);
    for (auto _ : state) {
        text = descend(kOwnDepth, tracer);
        benchmark::DoNotOptimize(text);
    }
    state.counters["lines"] = static_cast<double>(std::count(text.begin(), text.end(), '\n'));
}

BENCHMARK_CAPTURE(cold, ours, &traceWithOurs)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(cold, boost, &traceWithBoost)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(cold, glibc, &traceWithLibrary)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(warm, ours, &traceWithOurs)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(warm, boost, &traceWithBoost)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(warm, glibc, &traceWithLibrary)->Unit(benchmark::kMicrosecond);

} // namespace
