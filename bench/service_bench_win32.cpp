#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bare_record.h"
#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"

// The service beside the floor (floor_service_win32.cpp), in one run, under Wine: what a start, a restart, a stop and
// doing nothing cost, and how long a stop request can be lost. Memory and context switches are the host's figures for
// the same process. Prints a line for each figure, with the ratio of the medians and what it is to reach.
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

struct Rounds {
    int starts = 30;
    int restarts = 20; // of each of several services
    int copies = 30;
    int idleSeconds = 30;
};
constexpr Rounds kQuickRounds{5, 2, 5, 5};

struct Programs {
    fs::path service;
    fs::path floor;
};

int64_t ticksOf(const FILETIME& time) {
    return (static_cast<int64_t>(time.dwHighDateTime) << 32) + time.dwLowDateTime;
}

int64_t microsecondsSinceWritten(const fs::path& file) {
    WIN32_FILE_ATTRIBUTE_DATA attributes{};
    if (!::GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &attributes))
        test::failWithLastError("GetFileAttributesExW");
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    constexpr int64_t kTicksPerMicrosecond = 10;
    return (ticksOf(now) - ticksOf(attributes.ftLastWriteTime)) / kTicksPerMicrosecond;
}

double millisecondsSince(int64_t microseconds) {
    return static_cast<double>(test::nowMicroseconds() - microseconds) / 1000;
}

// Measured values, sorted.
class Samples {
public:
    void add(double value) { m_values.insert(std::upper_bound(m_values.begin(), m_values.end(), value), value); }
    double median() const { return m_values[m_values.size() / 2]; }
    // The range of the middle eighty percent.
    double spread() const {
        const size_t edge = m_values.size() / 10;
        return m_values[m_values.size() - 1 - edge] - m_values[edge];
    }

private:
    std::vector<double> m_values;
};

Samples one(double value) {
    Samples samples;
    samples.add(value);
    return samples;
}

// What the host knows of a process: the one whose command line begins with this program.
class HostProcess {
public:
    explicit HostProcess(const std::string& program) {
        for (const auto& entry : fs::directory_iterator("Z:/proc")) {
            const std::string name = entry.path().filename().string();
            if (name.find_first_not_of("0123456789") != std::string::npos) continue;
            if (read(entry.path() / "cmdline").starts_with(program)) m_directory = entry.path();
        }
        if (m_directory.empty()) throw std::runtime_error("the host does not know " + program);
    }

    int64_t contextSwitches() const {
        int64_t sum = 0;
        for (const auto& task : fs::directory_iterator(m_directory / "task")) {
            sum += field(task.path() / "status", "voluntary_ctxt_switches:");
            sum += field(task.path() / "status", "nonvoluntary_ctxt_switches:");
        }
        return sum;
    }

    double residentKiB() const { return static_cast<double>(field(m_directory / "status", "VmRSS:")); }
    double privateKiB() const {
        const fs::path rollup = m_directory / "smaps_rollup";
        return static_cast<double>(field(rollup, "Private_Clean:") + field(rollup, "Private_Dirty:"));
    }
    int64_t threads() const { return field(m_directory / "status", "Threads:"); }

private:
    static std::string read(const fs::path& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // The number after a line's name; 0 when there is no such line.
    static int64_t field(const fs::path& file, const std::string& name) {
        std::istringstream in(read(file));
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with(name)) return std::stoll(line.substr(name.size()));
        }
        return 0;
    }

    fs::path m_directory;
};

// One service under measurement, in an installation of its own.
class Candidate {
public:
    Candidate(std::wstring name, const fs::path& program, const std::wstring& arguments = {})
        : m_name(std::move(name)), m_program(program.filename()) {
        fs::remove(m_installation.bin() / m_program);
        // The standard library's copy_file is in text mode on this platform.
        test::writeFile(m_installation.bin() / m_program, test::readFile(program));
        removeIfThere();
        const std::wstring commandLine = (m_installation.bin() / m_program).make_preferred().native() + arguments;
        m_service.reset(::CreateServiceW(test::openManager().get(), m_name.c_str(), m_name.c_str(), SERVICE_ALL_ACCESS,
                                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                         commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
        if (!m_service) test::failWithLastError("CreateServiceW");
    }
    ~Candidate() {
        const DWORD id = m_service ? test::statusOf(m_service).dwProcessId : 0;
        if (id) test::endProcess(id, m_installation.root());
        ::DeleteService(m_service.get());
    }
    Candidate(const Candidate&) = delete;
    Candidate& operator=(const Candidate&) = delete;

    const test::Installation& installation() const { return m_installation; }

    // Milliseconds from the process's creation to the report that it runs.
    double start() {
        // Both have the same entry: the floor reads none.
        test::registerKeri(m_installation.root(), test::pathText(m_installation.keri()));
        if (!::StartServiceW(m_service.get(), 0, nullptr)) test::failWithLastError("StartServiceW");
        awaitState(SERVICE_RUNNING);
        FILETIME now{};
        ::GetSystemTimeAsFileTime(&now);
        const HANDLE process =
            ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, test::statusOf(m_service).dwProcessId);
        FILETIME created{};
        FILETIME unused{};
        ::GetProcessTimes(process, &created, &unused, &unused, &unused);
        ::CloseHandle(process);
        constexpr double kTicksPerMillisecond = 10'000;
        return static_cast<double>(ticksOf(now) - ticksOf(created)) / kTicksPerMillisecond;
    }

    // Milliseconds from the stop request to the report that it stopped.
    double stop() {
        const int64_t before = test::nowMicroseconds();
        SERVICE_STATUS status{};
        if (!::ControlService(m_service.get(), SERVICE_CONTROL_STOP, &status))
            test::failWithLastError("ControlService");
        awaitState(SERVICE_STOPPED);
        const double took = millisecondsSince(before);
        // The process ends a little later, and the next start must not meet it.
        m_installation.endPrograms();
        m_installation.clearTraces();
        return took;
    }

    // Ends the companion. The next one starts five seconds later.
    void endCompanion() {
        m_starts = m_installation.records("started").size();
        m_ended = test::nowMicroseconds();
        test::endProcess(m_installation.records("ready").back().processId, m_installation.root());
    }

    // Milliseconds beyond the five seconds from the companion's end to the start of the next one.
    double awaitRestart() const {
        const test::Record next = m_installation.awaitRecord("started", m_starts + 1);
        m_installation.awaitRecord("ready", m_starts + 1);
        constexpr double kDelay = 5000;
        return static_cast<double>(next.microseconds - m_ended) / 1000 - kDelay;
    }

    // Milliseconds from the report that it runs to the last library's last byte. A stop request meanwhile is lost.
    double copyWindow() {
        start();
        const int64_t running = test::nowMicroseconds();
        m_installation.awaitRecord("ready");
        const int64_t copied =
            test::nowMicroseconds() - microsecondsSinceWritten(m_installation.bin() / test::kLibraries.back());
        stop();
        return static_cast<double>(copied - running) / 1000;
    }

    // Milliseconds for the same copies by the system's own function.
    double copyBySystem() const {
        const fs::path target = m_installation.root() / "copies";
        fs::create_directories(target);
        const int64_t begin = test::nowMicroseconds();
        for (const std::string& library : test::kLibraries) {
            if (!::CopyFileW((m_installation.keri() / library).c_str(), (target / library).c_str(), FALSE))
                test::failWithLastError("CopyFileW");
        }
        return millisecondsSince(begin);
    }

    // Milliseconds for the two records that the service commits between its report and the copies.
    double commitTwoRecords() const {
        const std::string log = test::pathText(m_installation.root() / "bare.log");
        const int64_t begin = test::nowMicroseconds();
        for (int i = 0; i < 2; ++i)
            bench::writeBareRecord(log.c_str(), "2024-03-05 05 07:08:09 CopyDependencies - Copying dependencies\n");
        return millisecondsSince(begin);
    }

    HostProcess host() const { return HostProcess(test::pathText(m_installation.bin() / m_program)); }

private:
    void removeIfThere() const {
        const test::ServiceHandle old(::OpenServiceW(test::openManager().get(), m_name.c_str(), DELETE));
        if (old) ::DeleteService(old.get());
    }
    // Without a pause between two looks: the shortest one is as long as what is measured, and each look waits for the
    // service manager's answer anyway.
    void awaitState(DWORD state) const {
        const auto deadline = test::Clock::now() + seconds(10);
        while (test::statusOf(m_service).dwCurrentState != state) {
            if (test::Clock::now() > deadline) throw std::runtime_error("the service does not reach its state");
        }
    }

    std::wstring m_name;
    fs::path m_program;
    test::Installation m_installation;
    size_t m_starts = 0;
    int64_t m_ended = 0;
    test::ServiceHandle m_service;
};

// What a figure may be at most: a multiple of the floor's, a difference to it, or nothing in particular.
struct Goal {
    double ratio = 0;
    double difference = 0;
};
constexpr Goal kNoGoal{};

void print(const char* what, const char* unit, const Samples& ours, const Samples& floor, Goal goal) {
    const double difference = ours.median() - floor.median();
    const double ratio = floor.median() > 0 ? ours.median() / floor.median() : 0;
    std::printf("%-36s %9.2f %9.2f %-4s %6.2f %+9.2f %8.2f %8.2f", what, ours.median(), floor.median(), unit, ratio,
                difference, ours.spread(), floor.spread());
    if (goal.ratio > 0) std::printf("  at most %.2f%s", goal.ratio, ratio <= goal.ratio ? "" : ": MISSED");
    if (goal.difference > 0)
        std::printf("  at most %+.0f%s", goal.difference, difference <= goal.difference ? "" : ": MISSED");
    std::printf("\n");
    std::fflush(stdout);
}

// What is measured, by the index in samples: the service, the floor, and the floor with the records that the service
// commits. Each candidate is in an installation of its own.
constexpr size_t kKinds = 3;
std::unique_ptr<Candidate> makeCandidate(size_t kind, size_t number, const Programs& programs) {
    const std::wstring name = L"bench_" + std::to_wstring(kind) + L'_' + std::to_wstring(number);
    return std::make_unique<Candidate>(name, kind == 0 ? programs.service : programs.floor,
                                       kind == 2 ? L" records" : L"");
}

void measureStartAndStop(const Programs& programs, int rounds) {
    std::array<std::unique_ptr<Candidate>, kKinds> candidates;
    for (size_t kind = 0; kind < kKinds; ++kind) candidates[kind] = makeCandidate(kind, 0, programs);
    std::array<Samples, kKinds> starts;
    std::array<Samples, kKinds> stops;
    // Turn and turn about, so that what else the machine does meets all.
    for (int i = 0; i < rounds; ++i) {
        for (size_t kind = 0; kind < kKinds; ++kind) {
            Candidate& candidate = *candidates[kind];
            candidate.installation().setCompanion("prompt");
            starts[kind].add(candidate.start());
            candidate.installation().awaitRecord("ready");
            stops[kind].add(candidate.stop());
        }
    }
    print("process start to RUNNING", "ms", starts[0], starts[1], {.ratio = 1.10});
    print("stop request to STOPPED", "ms", stops[0], stops[1], kNoGoal);
    print("the same, floor commits 3 records", "ms", stops[0], stops[2], {.ratio = 1.0});
}

// With the libraries' usual size. The copy is the system's work; what the service adds is the difference.
void measureCopyWindow(const Programs& programs, int rounds) {
    const std::unique_ptr<Candidate> candidate = makeCandidate(0, 0, programs);
    Candidate& ours = *candidate;
    constexpr size_t kLibrarySize = 8U << 20U;
    ours.installation().putLibraries(kLibrarySize);
    ours.installation().setCompanion("prompt");
    Samples window;
    Samples bySystem;
    Samples withRecords;
    for (int i = 0; i < rounds; ++i) {
        window.add(ours.copyWindow());
        const double copies = ours.copyBySystem();
        bySystem.add(copies);
        withRecords.add(copies + ours.commitTwoRecords());
    }
    print("RUNNING to six libraries of 8 MiB", "ms", window, bySystem, kNoGoal);
    print("the same, CopyFile and 2 records", "ms", window, withRecords, {.ratio = 1.0});
}

// These companions share no port, so all run at the same time.
void startMute(Candidate& candidate) {
    candidate.installation().setCompanion("mute");
    candidate.start();
    candidate.installation().awaitRecord("ready");
}

void measureRestart(const Programs& programs, int rounds) {
    // Several of each kind: while one pauses, others restart. With this step a restart falls into the middle between
    // the ends of two other companions, and is over when its service's turn comes again. In this order each kind
    // follows each kind once, so that none has the advantage of what another one's end leaves behind.
    constexpr std::array<size_t, kKinds * kKinds> kOrder = {0, 0, 1, 0, 2, 1, 1, 2, 2};
    constexpr std::chrono::milliseconds kStep(588);
    std::vector<std::unique_ptr<Candidate>> candidates;
    for (size_t i = 0; i < kOrder.size(); ++i) {
        candidates.push_back(makeCandidate(kOrder[i], i, programs));
        startMute(*candidates.back());
    }
    std::array<Samples, kKinds> restarts;
    test::Clock::time_point turn = test::Clock::now();
    for (int round = 0; round <= rounds; ++round) {
        for (size_t i = 0; i < kOrder.size(); ++i, turn += kStep) {
            std::this_thread::sleep_until(turn);
            if (round > 0) restarts[kOrder[i]].add(candidates[i]->awaitRestart());
            if (round < rounds) candidates[i]->endCompanion();
        }
    }
    print("restart beyond the 5 s", "ms", restarts[0], restarts[1], {.ratio = 1.0});
    print("the same, floor commits 1 record", "ms", restarts[0], restarts[2], {.ratio = 1.0});
}

void measureIdle(const Programs& programs, int idleSeconds) {
    const std::unique_ptr<Candidate> ours = makeCandidate(0, 0, programs);
    const std::unique_ptr<Candidate> floor = makeCandidate(1, 0, programs);
    startMute(*ours);
    startMute(*floor);
    const std::array<HostProcess, 2> hosts = {ours->host(), floor->host()};
    // Until what a start still does in the background has settled.
    std::this_thread::sleep_for(seconds(2));
    const int64_t before[2] = {hosts[0].contextSwitches(), hosts[1].contextSwitches()};
    std::this_thread::sleep_for(seconds(idleSeconds));
    const auto both = [&](const char* what, const char* unit, auto figure, Goal goal) {
        print(what, unit, one(figure(0)), one(figure(1)), goal);
    };
    both(
        "context switches while idle", "",
        [&](size_t i) { return static_cast<double>(hosts[i].contextSwitches() - before[i]); }, kNoGoal);
    both("private memory", "KiB", [&](size_t i) { return hosts[i].privateKiB(); }, {.difference = 512});
    both("resident memory", "KiB", [&](size_t i) { return hosts[i].residentKiB(); }, kNoGoal);
    both("threads", "", [&](size_t i) { return static_cast<double>(hosts[i].threads()); }, kNoGoal);
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        if (words.size() < 2) throw std::runtime_error("usage: service_bench SERVICE FLOOR [--quick] PART...");
        const Programs programs{words[0], words[1]};
        const auto isGiven = [&](const char* word) {
            return std::find(words.begin(), words.end(), word) != words.end();
        };
        const Rounds rounds = isGiven("--quick") ? kQuickRounds : Rounds();
        std::printf("%-36s %9s %9s %-4s %6s %9s %8s %8s\n", "median", "service", "floor", "", "ratio", "beyond",
                    "spread", "of floor");
        if (isGiven("start")) measureStartAndStop(programs, rounds.starts);
        if (isGiven("copy")) measureCopyWindow(programs, rounds.copies);
        if (isGiven("restart")) measureRestart(programs, rounds.restarts);
        if (isGiven("idle")) measureIdle(programs, rounds.idleSeconds);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "service_bench: %s\n", error.what());
        return 1;
    }
}
