// formatString against the usual ways to the same std::string, on messages that this system writes. absl::StrCat,
// which has no format to read, is the floor. "allocs" counts the allocations of one message.
//
// For figures that can be compared:
//     taskset -c 1 varargs_bench --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <fmt/printf.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "bench/allocation_counter.h"
#include "core/text/core_varargs.h"

namespace {

// What the messages are about. Reached through a pointer that the compiler cannot see through.
struct Values {
    std::string service = "quorkeri_service.exe";
    std::string program = R"(C:\Program Files\Quorvane\bin\quorkeri_service.exe)";
    std::string companion = "./quorkeri_wrapper.exe";
    std::string library = "KeriDoorControl.dll";
    std::string source = R"(C:\Program Files (x86)\Keri Systems\Doors.NET)";
    std::string target = R"(C:\Program Files\Quorvane\bin)";
    const char* error = "The system cannot find the file specified.";
    const char* unit = "utl_service";
    const char* function = "NS_UTL::Service::runService";
    std::string_view record = "Failed copying";
    int32_t line = 70;
    int32_t bytes = 32768;
    int32_t code = 112;
    int32_t repeats = 12;
    long seconds = 3600;
    uint32_t address = 2130706433;
    uint16_t port = 34002;
    uint32_t socketError = 10054;
};

template <class... Args>
std::string viaSnprintf(const char* format, Args... args) {
    char buffer[512];
    const int length = std::snprintf(buffer, sizeof buffer, format, args...);
    return {buffer, static_cast<size_t>(length)};
}

using Writer = std::string (*)(const Values&);

struct Message {
    const char* name;
    Writer formatString, strFormat, fmtFormat, fmtSprintf, snprintf, strCat;
};

// One message with a printf format that all printf-like ways share, written by fmt::format and StrCat in their own way.
#define MESSAGE(name, printfFormat, fmtFormat, printfArgs, cArgs, catArgs)                            \
    Message {                                                                                         \
        name, [](const Values& v) { return NS_CORE::formatString(printfFormat, UNPACK printfArgs); }, \
            [](const Values& v) { return absl::StrFormat(printfFormat, UNPACK printfArgs); },         \
            [](const Values& v) { return fmt::format(fmtFormat, UNPACK printfArgs); },                \
            [](const Values& v) { return fmt::sprintf(printfFormat, UNPACK printfArgs); },            \
            [](const Values& v) { return viaSnprintf(printfFormat, UNPACK cArgs); },                  \
            [](const Values& v) { return absl::StrCat(UNPACK catArgs); }                              \
    }
#define UNPACK(...) __VA_ARGS__

const Message kMessages[] = {
    MESSAGE("installed", "installed service '%s' running '%s'", "installed service '{}' running '{}'",
            (v.service, v.program), (v.service.c_str(), v.program.c_str()),
            ("installed service '", v.service, "' running '", v.program, "'")),
    MESSAGE("failed_to_start", "failed to start '%s': %s", "failed to start '{}': {}", (v.companion, v.error),
            (v.companion.c_str(), v.error), ("failed to start '", v.companion, "': ", v.error)),
    MESSAGE("run_failed", "Run: '%s' failed", "Run: '{}' failed", (v.companion), (v.companion.c_str()),
            ("Run: '", v.companion, "' failed")),
    MESSAGE("failed_copying", "Failed copying '%s' from '%s' to '%s'", "Failed copying '{}' from '{}' to '{}'",
            (v.library, v.source, v.target), (v.library.c_str(), v.source.c_str(), v.target.c_str()),
            ("Failed copying '", v.library, "' from '", v.source, "' to '", v.target, "'")),
    MESSAGE("failed_writing", "File(%s):writeFrom - failed writing %d bytes with error %d:%s",
            "File({}):writeFrom - failed writing {} bytes with error {}:{}", (v.library, v.bytes, v.code, v.error),
            (v.library.c_str(), v.bytes, v.code, v.error),
            ("File(", v.library, "):writeFrom - failed writing ", v.bytes, " bytes with error ", v.code, ":", v.error)),
    MESSAGE("registry_type", "(%s) - type=%d expected %d", "({}) - type={} expected {}", (v.library, v.line, v.repeats),
            (v.library.c_str(), v.line, v.repeats), ("(", v.library, ") - type=", v.line, " expected ", v.repeats)),
    MESSAGE("log_location", "Log at %s:%d (%s) - %s", "Log at {}:{} ({}) - {}", (v.unit, v.line, v.function, v.source),
            (v.unit, v.line, v.function, v.source.c_str()),
            ("Log at ", v.unit, ":", v.line, " (", v.function, ") - ", v.source)),
    MESSAGE("repeated", "%s [%d times in %ld seconds]", "{} [{} times in {} seconds]",
            (v.program, v.repeats, v.seconds), (v.program.c_str(), v.repeats, v.seconds),
            (v.program, " [", v.repeats, " times in ", v.seconds, " seconds]")),
    MESSAGE("failed_sendto", "(%u,%u,%s) - failed in sendto (%u: %s)", "({},{},{}) - failed in sendto ({}: {})",
            (v.address, v.port, v.library, v.socketError, v.error),
            (v.address, v.port, v.library.c_str(), v.socketError, v.error),
            ("(", v.address, ",", v.port, ",", v.library, ") - failed in sendto (", v.socketError, ": ", v.error, ")")),
    MESSAGE("frame", "#%02d in %s", "#{:02d} in {}", (v.repeats, v.function), (v.repeats, v.function),
            ("#", absl::Dec(v.repeats, absl::kZeroPad2), " in ", v.function)),
};

void run(benchmark::State& state, Writer writer) {
    const Values values;
    const Values* hidden = &values;
    const bench::AllocationCounter counter(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(hidden);
        std::string text = writer(*hidden);
        benchmark::DoNotOptimize(text.data());
    }
}

void add(const Message& message, const char* way, Writer writer) {
    const Values values;
    if (writer(values) != message.strCat(values)) {
        std::fprintf(stderr, "%s by %s: %s\n", message.name, way, writer(values).c_str());
        std::exit(1);
    }
    benchmark::RegisterBenchmark((std::string(message.name) + "/" + way).c_str(),
                                 [writer](benchmark::State& state) { run(state, writer); });
}

[[maybe_unused]] const bool g_registered = [] {
    for (const Message& message : kMessages) {
        add(message, "formatString", message.formatString);
        add(message, "absl::StrFormat", message.strFormat);
        add(message, "fmt::format", message.fmtFormat);
        add(message, "fmt::sprintf", message.fmtSprintf);
        add(message, "snprintf", message.snprintf);
        add(message, "absl::StrCat", message.strCat);
    }
    return true;
}();

} // namespace
