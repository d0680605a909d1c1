// What logging costs, on both platforms: a call whose level is off against an empty loop, and a record of the file
// logger against the bare system calls that it is made of. Prints the lines that scripts/bench makes a table of.
//
//     logger_bench [ROUNDS]

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "bench/bare_record.h"
#include "bench/rounds.h"
#include "core/log/core_v2masterlogger.h"
#include "utl/utl_filelogger.h"

using NS_CORE::MasterLogger;

// A call site by itself, for a look at its instructions:
//     objdump -d --no-show-raw-insn build/linux/bench/logger_bench | sed -n '/<disabledCallSite>:/,/^$/p'
// up to the return they are one load of the level's byte with its test, and one branch to the part that logs.
extern "C" [[gnu::noinline]] void disabledCallSite(int value) {
    MLOG(Norm, "Bench::callSite", "%d of %s", value, "many");
}

namespace {

constexpr char kText[] = "QuorkeriWrapper::run - Run: './quorkeri_wrapper.exe' failed";

void measureDisabledLevel(int rounds) {
    bench::Row row("a level that is off", "");
    row.add("MLOG", [](uint32_t times) {
        for (uint32_t value = 0; value < times; ++value) {
            bench::touch(value);
            MLOG(Norm, "Bench::loop", "%u of %s", value, "many");
        }
    });
    row.add("empty loop", [](uint32_t times) {
        for (uint32_t value = 0; value < times; ++value) bench::touch(value);
    });
    row.measure(rounds, /*roundMicroseconds=*/20);
}

void measureRecord(const std::string& directory, int rounds) {
    constexpr int64_t kMaxLogSize = 1'000'000'000;
    NS_UTL::FileLogger logger(directory, "service.log", kMaxLogSize, 1);
    const NS_CORE::LevelEntry entry = MasterLogger::levelEntry(NS_CORE::LogLevel::Info);
    MasterLogger::setImplementation(std::make_unique<NS_UTL::FileLogger>(directory, "master.log", kMaxLogSize, 1));
    const std::string bareFile = directory + "/bare.log";
    const std::string bareLine = std::string("2019-11-20 20 14:49:57 ") + kText + "\n";

    bench::Row row("a record of the file logger", "1.05 bare mean");
    row.add("FileLogger::log", [&](uint32_t times) {
        for (; times > 0; --times) logger.log(NS_CORE::LogLevel::Info, 0, entry, 4, kText, sizeof(kText) - 1);
    });
    row.add("bare", [&](uint32_t times) {
        for (; times > 0; --times) bench::writeBareRecord(bareFile.c_str(), bareLine);
    });
    row.add("MLOG", [](uint32_t times) {
        for (; times > 0; --times) MLOG(Info, "QuorkeriWrapper::run", "Run: '%s' failed", "./quorkeri_wrapper.exe");
    });
    // One record a round, because a disk's pace changes.
    row.measure(rounds, /*roundMicroseconds=*/0);
    MasterLogger::setImplementation(nullptr);
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 1000;
    measureDisabledLevel(rounds);
    // On the disk that the working directory is on.
    const std::filesystem::path directory = "logger_bench.tmp";
    std::filesystem::create_directories(directory);
    measureRecord(directory.string(), rounds);
    std::filesystem::remove_all(directory);
}
