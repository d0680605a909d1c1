#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/identity/core_paths.h"
#include "core/log/core_v2masterlogger.h"
#include "core/report/core_testinterface.h"
#include "core/text/core_checkf.h"
#include "tests/service/process_gauge.h"
#include "tests/support/child.h"
#include "tests/support/self_process.h"
#include "tests/support/stamp.h"
#include "tests/support/temp_dir.h"
#include "tests/support/udp_receiver.h"
#include "utl/utl_service.h"

// A service whose checks fail all the time: what becomes of its memory, its log and its reports.
namespace service {
namespace {

namespace fs = std::filesystem;

constexpr int32_t kThreads = 2;
constexpr int32_t kFirstPlace = 200; // each thread has a place of its own
// Each costs a line that is on the disk before the next, so they are few and long: four times what the log holds.
constexpr int32_t kFailures = 10'000; // a thread
constexpr size_t kPadding = 1000;

void failOnAllThreads(int32_t count) {
    std::vector<std::thread> threads;
    for (int32_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([thread, count] {
            for (int32_t number = 0; number < count; ++number)
                static_cast<void>(
                    CHECKF_AT("main", kFirstPlace + thread, number < 0, "%d %s", number, std::string(kPadding, 'x')));
        });
    for (std::thread& thread : threads) thread.join();
}

int work(int /*argc*/, char** /*argv*/) {
    failOnAllThreads(/*count=*/500);
    const test::ProcessGauge before = test::ProcessGauge::read();
    failOnAllThreads(kFailures);
    const test::ProcessGauge after = test::ProcessGauge::read();
    // What it has more than before.
    std::ofstream("growth.txt") << after.handles - before.handles << ' ' << after.threads - before.threads << ' '
                                << after.memoryBytes - before.memoryBytes << '\n';
    return 7;
}

// The application, but for its work.
const test::ChildProgram g_failingService("failing_service", [](const std::vector<std::string>& /*arguments*/) {
    // A service has no console.
    const uint8_t flags = NS_CORE::MasterLogger::levelEntry(NS_CORE::LogLevel::Crit).flags;
    NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Crit,
                                         static_cast<uint8_t>(flags & ~NS_CORE::LevelEntry::Console));
    NS_CORE::setDefaultPaths();
    const NS_CORE::DefaultGlobals globals;
    NS_UTL::Service host("bin", "name", "display name", NS_CORE::dotPath(NS_CORE::PathKind::Logs), "service.log", &work,
                         [] {});
    NS_CORE::TestInterface::instance().readFiles();
    std::array words = {std::string("program"), std::string(NS_UTL::Service::kConsoleWord)};
    char* argv[] = {words[0].data(), words[1].data(), nullptr};
    const int result = host.run(2, argv);
    NS_CORE::TestInterface::instance().sendPending();
    NS_UTL::Service::clearInstance();
    return result;
});

// The lines that each thread left in a log, as numbers; each must be whole.
using LoggedNumbers = std::array<std::vector<int32_t>, kThreads>;

void readLog(const fs::path& path, LoggedNumbers* numbers) {
    std::istringstream text(test::readFile(path));
    for (std::string line; std::getline(text, line);) {
        const std::string head = "CORE::Assert::failDefault - GASSERT failed at main:20";
        ASSERT_NE(test::stampLength(line), 0U) << line;
        const std::string record = line.substr(test::stampLength(line));
        ASSERT_TRUE(record.starts_with(head)) << line;
        const auto thread = static_cast<size_t>(record.at(head.size()) - '0');
        ASSERT_LT(thread, numbers->size());
        const std::string rest = record.substr(head.size() + 1);
        const int32_t number = std::stoi(rest.substr(sizeof(" (CHECKF) (") - 1));
        ASSERT_EQ(rest, " (CHECKF) (" + std::to_string(number) + ' ' + std::string(kPadding, 'x') + ')');
        (*numbers)[thread].push_back(number);
    }
}

TEST(ProcessGauge, SeesEachHandle) {
    const test::TempDir dir;
    const int64_t before = test::ProcessGauge::read().handles;
    std::FILE* const file = std::fopen(dir.file("file").c_str(), "w");
    EXPECT_EQ(test::ProcessGauge::read().handles, before + 1);
    std::fclose(file);
    EXPECT_EQ(test::ProcessGauge::read().handles, before);
}

TEST(FailingService, StaysUpTheSameSizeAndReadableWhileItsChecksFail) {
    // Every record is committed to the disk, which is not what this is about.
    const test::TempDir dir(test::TempDir::Where::Memory);
    const fs::path root = dir.path();
    for (const char* directory : {"bin", "settings", "work/logs"}) fs::create_directories(root / directory);
    test::UdpReceiver collector;
    test::writeFile(root / "settings" / "testing.ini", "[general]\nsend_address 127.0.0.1\nsend_port " +
                                                           std::to_string(collector.port()) +
                                                           "\n[assert]\nsend enable\n");
    test::linkThisProgram(root / "bin" / "program.exe");
    const std::string commandLine = test::childCommandLineOf(dir.file("bin/program.exe"), "failing_service");
    EXPECT_EQ(test::runAndWait(commandLine), 7);

    // The runtime makes a lock's handle when two threads first meet at the lock. Handles that failures lose would be
    // tens of thousands.
    constexpr int64_t kMadeOnce = 8;
    std::istringstream growth(test::readFile(root / "growth.txt"));
    int64_t handles = -1;
    int64_t threads = -1;
    int64_t bytes = -1;
    growth >> handles >> threads >> bytes;
    std::printf("%lld bytes more\n", static_cast<long long>(bytes));
    EXPECT_LE(handles, kMadeOnce);
    EXPECT_EQ(threads, 0);
    EXPECT_LE(bytes, 256 * 1024);

    LoggedNumbers numbers;
    const fs::path log = root / "work" / "logs" / "service.log";
    constexpr uintmax_t kLongestLine = kPadding + 200;
    EXPECT_LE(fs::file_size(log), NS_UTL::Service::kLogFileLimit);
    EXPECT_LE(fs::file_size(log.string() + ".old"), NS_UTL::Service::kLogFileLimit + kLongestLine);
    EXPECT_EQ(std::distance(fs::directory_iterator(log.parent_path()), fs::directory_iterator()), 2);
    readLog(log.string() + ".old", &numbers);
    readLog(log, &numbers);
    for (const std::vector<int32_t>& ofThread : numbers) {
        ASSERT_FALSE(ofThread.empty());
        // None is missing between the first that is left and the last.
        for (size_t index = 1; index < ofThread.size(); ++index) ASSERT_EQ(ofThread[index], ofThread[index - 1] + 1);
        EXPECT_EQ(ofThread.back(), kFailures - 1);
    }
}

} // namespace
} // namespace service
