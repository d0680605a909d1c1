#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"

// The service beside the floor (floor_service_win32.cpp), in one run, under Wine: what a start, a restart, a stop and
// doing nothing cost. Memory and context switches are the host's figures for the same process. Prints one line per
// figure with the ratio of the medians.
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr int kRounds = 20;
constexpr int kRestarts = 5;
constexpr int kIdleSeconds = 30;

int64_t ticksOf(const FILETIME& time) {
    return (static_cast<int64_t>(time.dwHighDateTime) << 32) + time.dwLowDateTime;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
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
        const double took = static_cast<double>(test::nowMicroseconds() - before) / 1000;
        // The process ends a little later, and the next start must not meet it.
        m_installation.endPrograms();
        m_installation.clearTraces();
        return took;
    }

    // Milliseconds beyond the five seconds from the companion's end to the start of the next one.
    double restart() {
        const size_t started = m_installation.records("started").size();
        const test::Record last = m_installation.records("ready").back();
        const int64_t ended = test::nowMicroseconds();
        test::endProcess(last.processId, m_installation.root());
        const test::Record next = m_installation.awaitRecord("started", started + 1, seconds(10));
        m_installation.awaitRecord("ready", started + 1);
        constexpr double kDelay = 5000;
        return static_cast<double>(next.microseconds - ended) / 1000 - kDelay;
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
    test::ServiceHandle m_service;
};

void print(const char* what, const char* unit, double ours, double floor) {
    std::printf("%-34s %10.2f %10.2f %-4s %7.2f %+10.2f\n", what, ours, floor, unit, floor > 0 ? ours / floor : 0.0,
                ours - floor);
    std::fflush(stdout);
}

// `committing` is the floor with the three records that the service commits on a stop.
void measureStartAndStop(Candidate& ours, Candidate& floor, Candidate& committing) {
    const std::array<Candidate*, 3> candidates = {&ours, &floor, &committing};
    std::array<std::vector<double>, 3> starts;
    std::array<std::vector<double>, 3> stops;
    // Turn and turn about, so that what else the machine does meets all.
    for (int i = 0; i < kRounds; ++i) {
        for (size_t which = 0; which < candidates.size(); ++which) {
            Candidate& candidate = *candidates[which];
            candidate.installation().setCompanion("prompt");
            starts[which].push_back(candidate.start());
            candidate.installation().awaitRecord("ready");
            stops[which].push_back(candidate.stop());
        }
    }
    print("process start to RUNNING", "ms", median(starts[0]), median(starts[1]));
    print("stop request to STOPPED", "ms", median(stops[0]), median(stops[1]));
    print("the same, floor commits 3 records", "ms", median(stops[0]), median(stops[2]));
}

void measureRestart(Candidate& ours, Candidate& floor) {
    std::vector<double> restarts[2];
    for (Candidate* candidate : {&ours, &floor}) {
        // Both at the same time and in turn: these companions share no port.
        candidate->installation().setCompanion("mute");
        candidate->start();
        candidate->installation().awaitRecord("ready");
    }
    for (int i = 0; i < kRestarts; ++i) {
        for (Candidate* candidate : {&ours, &floor}) restarts[candidate == &floor].push_back(candidate->restart());
    }
    print("restart beyond the 5 s", "ms", median(restarts[0]), median(restarts[1]));
}

// Both still run, each with its companion.
void measureIdle(const Candidate& ours, const Candidate& floor) {
    const HostProcess hosts[2] = {ours.host(), floor.host()};
    // Until what a start still does in the background has settled.
    std::this_thread::sleep_for(seconds(2));
    const int64_t before[2] = {hosts[0].contextSwitches(), hosts[1].contextSwitches()};
    std::this_thread::sleep_for(seconds(kIdleSeconds));
    print("context switches, 30 s idle", "", static_cast<double>(hosts[0].contextSwitches() - before[0]),
          static_cast<double>(hosts[1].contextSwitches() - before[1]));
    print("resident memory", "KiB", hosts[0].residentKiB(), hosts[1].residentKiB());
    print("private memory", "KiB", hosts[0].privateKiB(), hosts[1].privateKiB());
    print("threads", "", static_cast<double>(hosts[0].threads()), static_cast<double>(hosts[1].threads()));
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 3) throw std::runtime_error("usage: service_bench SERVICE FLOOR");
        Candidate ours(L"quorkeri_service.exe", argv[1]);
        Candidate floor(L"floor_service", argv[2]);
        std::printf("%-34s %10s %10s %-4s %7s %10s\n", "median", "service", "floor", "", "ratio", "difference");
        {
            Candidate committing(L"floor_service_committing", argv[2], L" records");
            measureStartAndStop(ours, floor, committing);
        }
        measureRestart(ours, floor);
        measureIdle(ours, floor);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "service_bench: %s\n", error.what());
        return 1;
    }
}
