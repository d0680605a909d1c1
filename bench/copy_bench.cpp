#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "utl/utl_fileutils.h"

// One library of 20 MiB, copied over its previous copy as at every start of the service: by the system's own copy, by
// the bare loop with the same buffer, and by the program that everybody has.
namespace {

constexpr size_t kLibrarySize = 20 * 1024 * 1024;

// The two files, in a directory of the benchmark's own.
class Library {
public:
    Library() {
        std::filesystem::create_directories(m_directory);
        std::ofstream(source(), std::ios::binary) << std::string(kLibrarySize, 'x');
    }
    ~Library() { std::filesystem::remove_all(m_directory); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    std::string source() const { return m_directory / "source"; }
    std::string destination() const { return m_directory / "destination"; }

private:
    std::filesystem::path m_directory =
        std::filesystem::temp_directory_path() / ("quorkeri-copy-bench-" + std::to_string(::getpid()));
};

void copyByFileUtils(benchmark::State& state) {
    const Library library;
    for (auto _ : state)
        if (!NS_UTL::FileUtils::copy(library.source(), library.destination())) state.SkipWithError("copy failed");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kLibrarySize));
}

void copyByBareLoop(benchmark::State& state) {
    const Library library;
    std::array<char, 32768> buffer;
    for (auto _ : state) {
        const int from = ::open(library.source().c_str(), O_RDONLY | O_CLOEXEC);
        const int to = ::open(library.destination().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ssize_t length = 0;
        do {
            length = ::read(from, buffer.data(), buffer.size());
            if (length > 0 && ::write(to, buffer.data(), static_cast<size_t>(length)) != length)
                state.SkipWithError("write failed");
        } while (length == static_cast<ssize_t>(buffer.size()));
        ::close(from);
        ::close(to);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kLibrarySize));
}

void copyByCp(benchmark::State& state) {
    const Library library;
    const std::string command = "exec cp --reflink=never " + library.source() + ' ' + library.destination();
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) state.SkipWithError("cp failed");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kLibrarySize));
}

BENCHMARK(copyByFileUtils)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(copyByBareLoop)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(copyByCp)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
