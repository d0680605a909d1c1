// What logging costs: a call whose level is off against an empty loop, and a record of the file logger against the bare
// system calls that it is made of.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

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

void emptyLoop(benchmark::State& state) {
    int value = 0;
    for (auto _ : state) benchmark::DoNotOptimize(++value);
}
BENCHMARK(emptyLoop);

void loopWithDisabledLog(benchmark::State& state) {
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
        MLOG(Norm, "Bench::loop", "%d of %s", value, "many");
    }
}
BENCHMARK(loopWithDisabledLog);

// A directory on the disk that the working directory is on.
class WorkDirectory {
public:
    WorkDirectory() {
        std::filesystem::remove_all(m_path);
        std::filesystem::create_directory(m_path);
    }
    ~WorkDirectory() { std::filesystem::remove_all(m_path); }
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path = "logger_bench.tmp";
};

constexpr char kText[] = "QuorkeriWrapper::run - Run: './quorkeri_wrapper.exe' failed";

void bareSystemCalls(benchmark::State& state) {
    const WorkDirectory work;
    const std::string path = work.path() + "/service.log";
    const std::string line = std::string("2019-11-20 20 14:49:57 ") + kText + "\n";
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
        benchmark::DoNotOptimize(::write(fd, line.data(), line.size()));
        struct stat status{};
        benchmark::DoNotOptimize(::fstat(fd, &status));
        ::fsync(fd);
        ::close(fd);
    }
}

void fileLoggerRecord(benchmark::State& state) {
    const WorkDirectory work;
    NS_UTL::FileLogger logger(work.path(), "service.log", 1000000000, 1);
    const NS_CORE::LevelEntry entry = MasterLogger::levelEntry(NS_CORE::LogLevel::Info);
    for (auto _ : state) logger.log(NS_CORE::LogLevel::Info, 0, entry, 4, kText, sizeof(kText) - 1);
}

void recordThroughTheMasterLogger(benchmark::State& state) {
    const WorkDirectory work;
    MasterLogger::setImplementation(std::make_unique<NS_UTL::FileLogger>(work.path(), "service.log", 1000000000, 1));
    for (auto _ : state) MLOG(Info, "QuorkeriWrapper::run", "Run: '%s' failed", "./quorkeri_wrapper.exe");
    MasterLogger::setImplementation(nullptr);
}

// Interleaved, because a disk's pace drifts; the medians are compared.
void interleaved(benchmark::internal::Benchmark* bench) {
    bench->Iterations(200)->Repetitions(15)->Unit(benchmark::kMicrosecond)->UseRealTime()->ReportAggregatesOnly(true);
}
BENCHMARK(bareSystemCalls)->Apply(interleaved);
BENCHMARK(fileLoggerRecord)->Apply(interleaved);
BENCHMARK(recordThroughTheMasterLogger)->Apply(interleaved);

} // namespace
