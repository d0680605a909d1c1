// selftest: runs every test program of this bundle on the machine at hand, and leaves that as it was.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "packaging/selftest/selftest_process_win32.h"
#include "packaging/selftest/selftest_results.h"
#include "packaging/selftest/selftest_traces_win32.h"

namespace selftest {
namespace {

namespace fs = std::filesystem;

// For one test. Some call Windows Installer two dozen times.
constexpr unsigned kLimitSeconds = 900;
constexpr unsigned kListLimitSeconds = 120;
// Tests of the libraries run side by side; those of the whole service share its name and the companion's port.
constexpr int kLanes = 3;

struct Test {
    std::string program;
    std::string name;
};

struct Options {
    bool isAnswered = false; // /y
    bool isClean = false;    // /clean
    std::string part;        // /only TEXT: the tests whose "program Suite.Test" has it
};

std::string utf8(const fs::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

fs::path bundleDirectory() {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return fs::path(path).parent_path();
}

bool runsAlone(const Test& test) {
    const bool isOfLibraries = test.program == "core_tests" ||
                               (test.program == "utl_tests" && !test.name.starts_with("ServiceTest.ServiceMode"));
    return !isOfLibraries;
}

// Every line is "SIZE NAME".
std::vector<std::string> missingFiles(const fs::path& bundle) {
    std::vector<std::string> missing;
    std::ifstream list(bundle / "files.txt");
    uintmax_t size = 0;
    std::string name;
    size_t count = 0;
    for (; list >> size && std::getline(list >> std::ws, name); ++count) {
        if (name.ends_with('\r')) name.pop_back();
        std::error_code error;
        if (fs::file_size(bundle / fs::path(std::u8string(name.begin(), name.end())), error) != size || error)
            missing.push_back("'" + name + "' is missing or damaged: unpack the bundle again.");
    }
    if (!count) missing.emplace_back("'files.txt' is missing or damaged: unpack the bundle again.");
    return missing;
}

std::string windowsVersion() {
    RTL_OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    using GetVersion = LONG(WINAPI*)(RTL_OSVERSIONINFOW*);
    if (const auto getVersion = std::bit_cast<GetVersion>(::GetProcAddress(ntdll, "RtlGetVersion")))
        getVersion(&version);
    std::ostringstream text;
    text << "Windows " << version.dwMajorVersion << '.' << version.dwMinorVersion << '.' << version.dwBuildNumber;
    BOOL isWow = FALSE;
    ::IsWow64Process(::GetCurrentProcess(), &isWow);
    text << (isWow ? ", 64-bit" : ", 32-bit");
    if (::GetProcAddress(ntdll, "wine_get_version")) text << ", Wine";
    return text.str();
}

class Run {
public:
    explicit Run(fs::path bundle) : m_bundle(std::move(bundle)), m_work(m_bundle / "work") {
        for (int lane = 0; lane < kLanes; ++lane) fs::create_directories(temporary(lane));
    }

    // The tests of all programs; a program that cannot list its tests is a failed test itself.
    void collect(const std::string& part) {
        std::set<fs::path> programs;
        for (const fs::directory_entry& entry : fs::directory_iterator(m_bundle / "tests")) {
            if (entry.path().extension() == ".exe" && entry.path().stem().u8string().ends_with(u8"_tests"))
                programs.insert(entry.path());
        }
        for (const fs::path& path : programs) {
            const std::string program = utf8(path.stem());
            const Ended listed = run(program, "--gtest_list_tests", 0, kListLimitSeconds);
            const std::vector<std::string> names = testNames(listed.output);
            if (listed.exitCode != 0 || names.empty()) {
                add({program, "(list of tests)", Verdict::Failed, listed.seconds, listed.output});
            }
            for (const std::string& name : names) {
                std::string whole = program;
                whole += ' ';
                whole += name;
                if (whole.find(part) == std::string::npos) continue;
                const Test test{program, name};
                (runsAlone(test) ? m_alone : m_beside).push_back(test);
            }
        }
        m_total = m_alone.size() + m_beside.size();
    }

    void runAll() {
        std::vector<std::thread> lanes;
        lanes.emplace_back([this] { runLane(m_alone, m_nextAlone, 0); });
        for (int lane = 1; lane < kLanes; ++lane)
            lanes.emplace_back([this, lane] { runLane(m_beside, m_nextBeside, lane); });
        for (std::thread& lane : lanes) lane.join();
        std::sort(m_results.begin(), m_results.end(), [](const Result& one, const Result& other) {
            return std::tie(one.program, one.name) < std::tie(other.program, other.name);
        });
    }

    void add(Result result) {
        const std::lock_guard lock(m_mutex);
        ++m_done;
        m_failed += result.verdict == Verdict::Failed;
        std::printf("[%4zu/%zu] %zu failed  %s %s%s\n", m_done, m_total, m_failed, result.program.c_str(),
                    result.name.c_str(),
                    result.verdict == Verdict::Failed    ? "  FAILED"
                    : result.verdict == Verdict::Skipped ? "  skipped"
                                                         : "");
        std::fflush(stdout);
        m_results.push_back(std::move(result));
    }

    // The tests that run alone are the long ones.
    void announce(const Test& test) {
        const std::lock_guard lock(m_mutex);
        std::printf("[%4zu/%zu] now runs  %s %s\n", m_done, m_total, test.program.c_str(), test.name.c_str());
        std::fflush(stdout);
    }

    size_t count() const { return m_total; }
    const std::vector<Result>& results() const { return m_results; }

private:
    fs::path temporary(int lane) const { return m_work / ("tmp" + std::to_string(lane)); }

    Ended run(const std::string& program, const std::string& word, int lane, unsigned limit) const {
        const fs::path path = m_bundle / "tests" / (program + ".exe");
        const std::wstring line = L'"' + path.wstring() + L"\" " + std::wstring(word.begin(), word.end());
        return runInJob(line, temporary(lane).wstring(), temporary(lane).wstring(), limit);
    }

    void runLane(const std::vector<Test>& tests, std::atomic<size_t>& next, int lane) {
        for (size_t at = next++; at < tests.size() && !isEnding(); at = next++) {
            const Test& test = tests[at];
            if (&tests == &m_alone) announce(test);
            const Ended ended = run(test.program, "--gtest_filter=" + test.name, lane, kLimitSeconds);
            if (isEnding()) return;
            Result result =
                resultOf(test.program, test.name, ended.timedOut, ended.started ? ended.exitCode : 1, ended.output);
            result.seconds = ended.seconds;
            add(std::move(result));
        }
    }

    fs::path m_bundle;
    fs::path m_work;
    std::vector<Test> m_alone;
    std::vector<Test> m_beside;
    std::atomic<size_t> m_nextAlone{0};
    std::atomic<size_t> m_nextBeside{0};
    std::mutex m_mutex; // guards what add() changes
    std::vector<Result> m_results;
    size_t m_total = 0;
    size_t m_done = 0;
    size_t m_failed = 0;
};

// Lets the main thread clean up; the system gives a closing console a few seconds for it.
BOOL WINAPI onConsoleControl(DWORD) {
    endEverything();
    ::Sleep(INFINITE);
    return TRUE;
}

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool says(const std::vector<std::string>& sentences) {
    for (const std::string& sentence : sentences) std::printf("%s\n", sentence.c_str());
    return !sentences.empty();
}

bool agreed() {
    std::printf(
        "The self-test installs, starts, stops and removes test copies of the product, and restarts nothing else.\n"
        "It should take less than 20 minutes, but nobody has timed it on a Windows yet. Continue? [y/n] ");
    std::fflush(stdout);
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y";
}

bool cleanUp(const fs::path& bundle) {
    return !says(clean((bundle / "selftest-made.txt").wstring(), bundle.wstring(), (bundle / "work").wstring()));
}

int test(const fs::path& bundle, const Options& options) {
    const std::wstring journal = (bundle / "selftest-made.txt").wstring();
    if (isNoted(journal)) {
        std::printf("An earlier run ended before it had cleaned up: run 'selftest.cmd /clean' first.\n");
        return 1;
    }
    if (says(missingFiles(bundle)) || says(obstacles())) return 1;
    if (!options.isAnswered && !agreed()) return 1;
    if (!noteBeforeRun(journal)) {
        std::printf("Nothing can be written to the bundle's directory: unpack it elsewhere.\n");
        return 1;
    }
    ::SetConsoleCtrlHandler(&onConsoleControl, TRUE);
    Run run(bundle);
    run.collect(options.part);
    if (!run.count())
        run.add({"selftest", "HasTests", Verdict::Failed, 0, "No test has '" + options.part + "' in its name."});
    run.runAll();
    std::vector<Result> results = run.results();
    const bool isClean = cleanUp(bundle);
    results.push_back({"selftest", "LeavesTheMachineAsItWas", isClean ? Verdict::Passed : Verdict::Failed, 0,
                       isClean ? "" : "see what the console says"});
    writeText(bundle / "selftest-report.txt", textReport(results, "Self-test on " + windowsVersion()));
    writeText(bundle / "selftest-report.xml", junitReport(results));
    const bool hasFailed = std::any_of(results.begin(), results.end(),
                                       [](const Result& result) { return result.verdict == Verdict::Failed; });
    if (isEnding()) std::printf("\nStopped before the end.\n");
    std::printf("\nReport: %s\n%s\n", utf8(bundle / "selftest-report.txt").c_str(), summaryOf(results).c_str());
    return hasFailed || isEnding() ? 1 : 0;
}

int usage() {
    std::printf(
        "selftest [/y] [/only TEXT]   runs all tests, or those with TEXT in 'program Suite.Test'; /y asks nothing\n"
        "selftest /clean              removes what an interrupted run left behind\n");
    return 1;
}

} // namespace
} // namespace selftest

int main(int argc, char** argv) {
    selftest::Options options;
    for (int at = 1; at < argc; ++at) {
        const std::string word = argv[at];
        if (word == "/y") {
            options.isAnswered = true;
        } else if (word == "/clean") {
            options.isClean = true;
        } else if (word == "/only" && at + 1 < argc) {
            options.part = argv[++at];
        } else {
            return selftest::usage();
        }
    }
    const std::filesystem::path bundle = selftest::bundleDirectory();
    if (options.isClean) return selftest::cleanUp(bundle) ? 0 : 1;
    return selftest::test(bundle, options);
}
