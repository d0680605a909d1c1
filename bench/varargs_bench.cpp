// formatString against the usual ways to the same std::string, on both platforms: ten messages that this system
// writes, and single conversions. absl::StrCat, which has no format to read, is the floor. Prints the lines that
// scripts/bench makes a table of.
//
//     varargs_bench [ROUNDS [TEXT]]    rows whose names contain TEXT

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>
#include <fmt/format.h>
#include <fmt/printf.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "bench/rounds.h"
#include "core/text/core_varargs.h"

namespace {

// What the messages are about. Reached through a pointer that the compiler cannot see through.
struct Values {
    std::string service = "quorkeri_service.exe";
    std::string program = R"(C:\Program Files\Quorvane\bin\quorkeri_service.exe)";
    std::string companion = "./quorkeri_wrapper.exe";
    std::string library = "KeriDoorControl.dll";
    std::string source = R"(C:\Keri)";
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
    int64_t total = 5'368'709'120;
    double elapsed = 12.345678;
    const void* place = reinterpret_cast<const void*>(uintptr_t{0x7ffe1234});
    std::string longText = std::string(4000, 't');
};

template <class... Args>
std::string viaSnprintf(const char* format, Args... args) {
    char buffer[4096];
    const int length = std::snprintf(buffer, sizeof buffer, format, args...);
    return {buffer, static_cast<size_t>(length)};
}

using Writer = std::string (*)(const Values&);

// What a row is to reach, for scripts/bench.
constexpr char kMessage[] = "0.75 fastest";
constexpr char kAsFast[] = "1.00 fastest";
constexpr char kFloating[] = "1.10 snprintf";
constexpr char kLong[] = "1.20 absl::StrCat";
// The result needs no allocation, but the room that is reserved for an integer does.
constexpr char kSmall[] = "1.00 fastest+allocation";

struct Message {
    const char* name;
    const char* goal;
    Writer formatString, strFormat, fmtFormat, fmtSprintf, snprintf, strCat;
};

// One message with a printf format that all printf-like ways share, written by fmt::format and StrCat in their own way.
#define MESSAGE(name, goal, printfFormat, fmtFormat, printfArgs, cArgs, catArgs)                            \
    Message {                                                                                               \
        name, goal, [](const Values& v) { return NS_CORE::formatString(printfFormat, UNPACK printfArgs); }, \
            [](const Values& v) { return absl::StrFormat(printfFormat, UNPACK printfArgs); },               \
            [](const Values& v) { return fmt::format(fmtFormat, UNPACK printfArgs); },                      \
            [](const Values& v) { return fmt::sprintf(printfFormat, UNPACK printfArgs); },                  \
            [](const Values& v) { return viaSnprintf(printfFormat, UNPACK cArgs); },                        \
            []([[maybe_unused]] const Values& v) { return absl::StrCat(UNPACK catArgs); }                   \
    }
#define UNPACK(...) __VA_ARGS__

const Message kMessages[] = {
    MESSAGE("installed", kMessage, "installed service '%s' running '%s'", "installed service '{}' running '{}'",
            (v.service, v.program), (v.service.c_str(), v.program.c_str()),
            ("installed service '", v.service, "' running '", v.program, "'")),
    MESSAGE("failed_to_start", kMessage, "failed to start '%s': %s", "failed to start '{}': {}", (v.companion, v.error),
            (v.companion.c_str(), v.error), ("failed to start '", v.companion, "': ", v.error)),
    MESSAGE("run_failed", kMessage, "Run: '%s' failed", "Run: '{}' failed", (v.companion), (v.companion.c_str()),
            ("Run: '", v.companion, "' failed")),
    MESSAGE("failed_copying", kMessage, "Failed copying '%s' from '%s' to '%s'",
            "Failed copying '{}' from '{}' to '{}'", (v.library, v.source, v.target),
            (v.library.c_str(), v.source.c_str(), v.target.c_str()),
            ("Failed copying '", v.library, "' from '", v.source, "' to '", v.target, "'")),
    MESSAGE("failed_writing", kMessage, "File(%s):writeFrom - failed writing %d bytes with error %d:%s",
            "File({}):writeFrom - failed writing {} bytes with error {}:{}", (v.library, v.bytes, v.code, v.error),
            (v.library.c_str(), v.bytes, v.code, v.error),
            ("File(", v.library, "):writeFrom - failed writing ", v.bytes, " bytes with error ", v.code, ":", v.error)),
    MESSAGE("registry_type", kMessage, "(%s) - type=%d expected %d", "({}) - type={} expected {}",
            (v.library, v.line, v.repeats), (v.library.c_str(), v.line, v.repeats),
            ("(", v.library, ") - type=", v.line, " expected ", v.repeats)),
    MESSAGE("log_location", kMessage, "Log at %s:%d (%s) - %s", "Log at {}:{} ({}) - {}",
            (v.unit, v.line, v.function, v.source), (v.unit, v.line, v.function, v.source.c_str()),
            ("Log at ", v.unit, ":", v.line, " (", v.function, ") - ", v.source)),
    MESSAGE("repeated", kMessage, "%s [%d times in %ld seconds]", "{} [{} times in {} seconds]",
            (v.program, v.repeats, v.seconds), (v.program.c_str(), v.repeats, v.seconds),
            (v.program, " [", v.repeats, " times in ", v.seconds, " seconds]")),
    MESSAGE("failed_sendto", kMessage, "(%u,%u,%s) - failed in sendto (%u: %s)",
            "({},{},{}) - failed in sendto ({}: {})", (v.address, v.port, v.library, v.socketError, v.error),
            (v.address, v.port, v.library.c_str(), v.socketError, v.error),
            ("(", v.address, ",", v.port, ",", v.library, ") - failed in sendto (", v.socketError, ": ", v.error, ")")),
    MESSAGE("frame", kMessage, "#%02d in %s", "#{:02d} in {}", (v.repeats, v.function), (v.repeats, v.function),
            ("#", absl::Dec(v.repeats, absl::kZeroPad2), " in ", v.function)),
    MESSAGE("record of 20 fields", kAsFast, "%s %d %s %d %u %s %d %x %s %d %s %u %d %s %ld %d %s %u %d %s",
            "{} {} {} {} {} {} {} {:x} {} {} {} {} {} {} {} {} {} {} {} {}",
            (v.unit, v.line, v.function, v.bytes, v.address, v.library, v.code, v.address, v.service, v.repeats,
             v.error, v.socketError, v.code, v.companion, v.seconds, v.line, v.target, v.address, v.bytes, v.unit),
            (v.unit, v.line, v.function, v.bytes, v.address, v.library.c_str(), v.code, v.address, v.service.c_str(),
             v.repeats, v.error, v.socketError, v.code, v.companion.c_str(), v.seconds, v.line, v.target.c_str(),
             v.address, v.bytes, v.unit),
            (v.unit, " ", v.line, " ", v.function, " ", v.bytes, " ", v.address, " ", v.library, " ", v.code, " ",
             absl::Hex(v.address), " ", v.service, " ", v.repeats, " ", v.error, " ", v.socketError, " ", v.code, " ",
             v.companion, " ", v.seconds, " ", v.line, " ", v.target, " ", v.address, " ", v.bytes, " ", v.unit)),
    MESSAGE("%s alone", kAsFast, "%s", "{}", (v.error), (v.error), (v.error)),
    MESSAGE("%d, short", kSmall, "%d", "{}", (v.code), (v.code), (v.code)),
    MESSAGE("%d ms, short", kSmall, "%d ms", "{} ms", (v.code), (v.code), (v.code, " ms")),
    MESSAGE("4000 characters", kLong, "%s", "{}", (v.longText), (v.longText.c_str()), (v.longText)),
    MESSAGE("4000 characters, and text", kLong, "Run: '%s' failed", "Run: '{}' failed", (v.longText),
            (v.longText.c_str()), ("Run: '", v.longText, "' failed")),
    MESSAGE("4000 characters, C string", kLong, "%s", "{}", (v.longText.c_str()), (v.longText.c_str()),
            (v.longText.c_str())),
    MESSAGE("%.3f", kFloating, "the copy took %.3f seconds", "the copy took {:.3f} seconds", (v.elapsed), (v.elapsed),
            ("the copy took 12.346 seconds")),
    MESSAGE("%g", kFloating, "the copy took %g seconds", "the copy took {:g} seconds", (v.elapsed), (v.elapsed),
            ("the copy took ", v.elapsed, " seconds")),
    MESSAGE("64-bit decimal", kAsFast, "copied %lld of the library's bytes", "copied {} of the library's bytes",
            (v.total), (static_cast<long long>(v.total)), ("copied ", v.total, " of the library's bytes")),
    MESSAGE("%x", kAsFast, "the companion ended with code %x", "the companion ended with code {:x}", (v.address),
            (v.address), ("the companion ended with code ", absl::Hex(v.address))),
    MESSAGE("%5d", kAsFast, "started the companion %5d times", "started the companion {:5} times", (v.line), (v.line),
            ("started the companion ", absl::Dec(v.line, absl::kSpacePad5), " times")),
    // The runtime libraries do not agree about %p.
    {"%p", kAsFast, [](const Values& v) { return NS_CORE::formatString("no symbol for address %p", v.place); },
     [](const Values& v) { return absl::StrFormat("no symbol for address %p", v.place); },
     [](const Values& v) { return fmt::format("no symbol for address {}", v.place); },
     [](const Values& v) { return fmt::sprintf("no symbol for address %p", v.place); },
     [](const Values& v) {
         return viaSnprintf("no symbol for address 0x%lx",
                            static_cast<unsigned long>(reinterpret_cast<uintptr_t>(v.place)));
     },
     [](const Values& v) {
         return absl::StrCat("no symbol for address 0x", absl::Hex(reinterpret_cast<uintptr_t>(v.place)));
     }},
};

void add(bench::Row& row, const Message& message, const char* way, Writer writer) {
    const Values values;
    if (writer(values) != message.strCat(values)) {
        std::fprintf(stderr, "%s by %s: %s\n", message.name, way, writer(values).c_str());
        std::exit(1);
    }
    row.add(way, [writer, shown = Values()](uint32_t times) mutable {
        for (; times > 0; --times) {
            bench::touch(shown);
            std::string text = writer(shown);
            bench::touch(text);
        }
    });
}

// What an allocation of the message's reservation costs.
void addAllocation(bench::Row& row, const Message& message) {
    const size_t size = message.formatString(Values()).capacity() + 1;
    row.add("allocation", [size](uint32_t times) {
        for (; times > 0; --times) {
            void* memory = ::operator new(size);
            bench::touch(memory);
            ::operator delete(memory, size);
        }
    });
}

} // namespace

int main(int argc, char** argv) {
    constexpr int kRounds = 400;
    constexpr int64_t kRoundMicroseconds = 20;
    const int rounds = argc > 1 ? std::atoi(argv[1]) : kRounds;
    const std::string_view filter = argc > 2 ? argv[2] : "";
    for (const Message& message : kMessages) {
        if (std::string_view(message.name).find(filter) == std::string_view::npos) continue;
        bench::Row row(message.name, message.goal);
        add(row, message, "formatString", message.formatString);
        add(row, message, "absl::StrFormat", message.strFormat);
        add(row, message, "fmt::format", message.fmtFormat);
        add(row, message, "fmt::sprintf", message.fmtSprintf);
        add(row, message, "snprintf", message.snprintf);
        add(row, message, "absl::StrCat", message.strCat);
        addAllocation(row, message);
        row.measure(rounds, kRoundMicroseconds);
    }
}
