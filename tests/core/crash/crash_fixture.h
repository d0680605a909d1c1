#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core/crash/internal/core_crashreport.h"
#include "core/files/core_wrapper.h"
#include "core/identity/core_paths.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/history_lines.h"
#include "tests/support/self_process.h"
#include "tests/support/temp_dir.h"

namespace test {

// By name: what a program breaks in itself before it crashes under guard.
using Preparations = std::map<std::string, std::function<void()>>;

// Waits for a thread that allocates memory, then prints so.
void allocateAside();

// The preparations that only this platform has.
const Preparations& platformPreparations();

// Whether a report continues when one of its steps hangs: on Linux it does, on Windows the process ends there.
extern const bool kContinuesAfterHang;

// The system's error when a file is created in a directory's place.
extern const uint32_t kErrorOfDirectoryInPlace;

// An installation's directories, in which a program of the test's own crashes under guard.
class CrashTest : public testing::Test {
protected:
    struct Crash {
        std::string act = "null"; // one of crashKinds(), or of the acts in core_crashguard_test.cpp
        std::string preparation = "nothing";
        uint32_t patienceMs = 60'000;
        std::vector<std::string> words = {}; // of the program's command line
    };
    static constexpr uint32_t kImpatienceMs = 8000;

    CrashTest() {
        std::filesystem::create_directories(historyFile().parent_path());
        NS_CORE::setDefaultPaths();
        m_names = NS_CORE::crashNames("core_tests");
    }

    std::filesystem::path dumps() const { return m_directory.path() / "work/dumps"; }
    std::filesystem::path dumpFile() const {
        return dumps() / std::filesystem::path(m_names.dumpFile.view()).filename();
    }
    std::filesystem::path historyFile() const { return m_directory.path() / "work/logs/dumps.log"; }

    // Returns how the program ended, and leaves its output in m_output, with '\n' for every line's end.
    int64_t run(const Crash& crash) {
        std::vector<std::string> arguments{crash.act, m_directory.path().string(), crash.preparation,
                                           std::to_string(crash.patienceMs)};
        arguments.insert(arguments.end(), crash.words.begin(), crash.words.end());
        SelfProcess child("guarded", arguments);
        m_output = child.readAll();
        std::erase(m_output, '\r');
        return child.wait();
    }

    // Crashes, and expects the result and whether dump and history are there. The next crash begins without them.
    void expectCrash(const Crash& crash, bool hasDump = true, bool hasHistory = true) {
        SCOPED_TRACE(crash.act + ' ' + crash.preparation);
        EXPECT_EQ(run(crash), kCrashExitCode);
        EXPECT_EQ(std::filesystem::is_regular_file(dumpFile()) && std::filesystem::file_size(dumpFile()) > 100,
                  hasDump);
        EXPECT_EQ(std::filesystem::exists(historyFile()), hasHistory);
        if (hasHistory) {
            EXPECT_EQ(history(), historyLine());
        }
        std::filesystem::remove(historyFile());
        std::filesystem::remove(dumpFile());
    }

    // The same, and expects the log's line.
    void expectFullReport(const Crash& crash) {
        expectCrash(crash);
        EXPECT_EQ(m_output, written()) << crash.act << ' ' << crash.preparation;
    }

    // Crashes where nothing guards the fault.
    void expectNoReport(const Crash& crash) {
        EXPECT_EQ(run(crash), kUnhandledFaultExitCode);
        EXPECT_EQ(m_output, "");
        EXPECT_FALSE(std::filesystem::exists(dumpFile()));
        EXPECT_FALSE(std::filesystem::exists(historyFile()));
    }

    std::string written() const { return line("Wrote minidump for", ""); }
    std::string failed(uint32_t error) const {
        std::string text = NS_CORE::systemErrorText(error);
        std::erase(text, '\r');
        return line("Failed to write minidump for", " (" + text + ")");
    }
    std::string history() const { return withoutTimes(readFile(historyFile())); }
    std::string historyLine() const { return "TIME: core_tests " + std::string(m_names.version) + "\n"; }

    TempDir m_directory;
    NS_CORE::CrashNames m_names;
    std::string m_output;

private:
    std::string line(const std::string& start, const std::string& end) const {
        return "[CRIT] " + start + " 'core_tests' to '" + m_names.dumpFile.c_str() + "', version '" + m_names.version +
               "'" + end + "\n";
    }
};

} // namespace test

using test::CrashTest;
