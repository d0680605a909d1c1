#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "core/crash/internal/core_crashreport.h"
#include "core/identity/core_paths.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/history_lines.h"
#include "tests/support/self_process.h"
#include "tests/support/temp_dir.h"

namespace test {

// What is spoilt before a guarded application faults, by name.
using Preparations = std::map<std::string, void (*)()>;

// Those that only this platform has.
const Preparations& platformPreparations();

// How far the report of a fault gets where something comes in its way, by platform.

// Whether the report goes on behind what hangs. Where it does not, the process ends there.
extern const bool kLeavesWhatHangs;

// A limit for what hangs: long enough for what the limit comprises beside that.
extern const uint32_t kImpatienceMs;

// Whether there is a dump where nothing can be allocated any more.
extern const bool kDumpNeedsNoMemory;

// Which of the two lines tells of the dump whose writer faulted.
std::string lineOfFaultingWriter(const std::string& written,
                                 const std::function<std::string(const std::string& error)>& failed);

// Why a file cannot be created where a directory is.
std::string errorOfDirectoryInPlace();

// In a directory of its own, with the service's "work/logs" in it.
class CrashReportFaultsTest : public testing::Test {
protected:
    CrashReportFaultsTest() {
        std::filesystem::create_directories(logs());
        NS_CORE::setDefaultPaths();
        m_names = NS_CORE::crashNames();
    }

    std::filesystem::path logs() const { return m_directory.path() / "work/logs"; }
    std::filesystem::path dumps() const { return m_directory.path() / "work/dumps"; }
    std::filesystem::path dumpFile() const { return dumps() / std::filesystem::path(m_names.dumpFile).filename(); }
    std::filesystem::path historyFile() const { return logs() / "dumps.log"; }

    // How it ended, with what it printed in m_output.
    int64_t run(const std::string& preparation, const std::string& act = "null", uint32_t patienceMs = 60'000) {
        SelfProcess child("report-spoilt", {preparation, act, m_directory.path().string(), std::to_string(patienceMs)});
        m_output = child.readAll();
        std::erase(m_output, '\r');
        return child.wait();
    }
    int64_t runImpatiently(const std::string& preparation, const std::string& act = "null") {
        return run(preparation, act, kImpatienceMs);
    }

    std::string written() const {
        return "[CRIT] Wrote minidump for 'core_tests' to '" + m_names.dumpFile + "', version '" + m_names.version +
               "'\n";
    }
    std::string failed(const std::string& error) const {
        return "[CRIT] Failed to write minidump for 'core_tests' to '" + m_names.dumpFile + "', version '" +
               m_names.version + "' (" + error + ")\n";
    }
    std::string history() const { return withoutTimes(readFile(historyFile())); }
    std::string historyLine() const { return "TIME: core_tests " + m_names.version + "\n"; }

    TempDir m_directory;
    NS_CORE::CrashNames m_names;
    std::string m_output;
};

} // namespace test

using test::CrashReportFaultsTest;
