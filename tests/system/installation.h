#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/temp_dir.h"

namespace test {

// The registered name, and the one in every message; the program's file has its platform's own suffix.
constexpr const char* kServiceName = "quorkeri_service.exe";
constexpr const char* kCompanionName = "quorkeri_wrapper.exe";
constexpr uint16_t kStopPort = 34002;

// The six libraries, in the order in which they are copied.
extern const std::vector<std::string> kLibraries;

// The path as the platform itself writes it: with backslashes on Windows.
std::string pathText(std::filesystem::path path);

// Sends `length` bytes to UDP 127.0.0.1:port.
void sendDatagram(uint16_t port, size_t length);

// One line that the companion wrote about itself; see tests/companion/companion.cpp.
struct Record {
    int64_t microseconds = 0;
    uint32_t processId = 0;
    std::string event;
    std::string text;
};

// The companion's records in this directory, of one event or all.
std::vector<Record> recordsIn(const std::filesystem::path& bin, const std::string& event = "");

// A fresh installation as a set-up program leaves it: bin with the service and the companion, work/logs, settings, and
// beside it a Keri installation with six libraries that is registered. When it ends, its programs are ended by their
// ids, and files and registration are gone. Every waiting call throws when its limit is over.
class Installation {
public:
    // The installation's directory has this name, in a directory of the test's own.
    explicit Installation(std::string_view directoryName = "installation");
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    const std::filesystem::path& root() const { return m_root; }
    std::filesystem::path bin() const { return m_root / "bin"; }
    std::filesystem::path keri() const { return m_directory.path() / "Keri"; }
    std::filesystem::path program() const;
    std::filesystem::path companion() const { return bin() / kCompanionName; }
    std::filesystem::path logFile() const { return m_root / "work" / "logs" / "service.log"; }
    std::filesystem::path output() const { return m_root / "output.txt"; }

    // Fills the six libraries with bytes that differ from library to library.
    void putLibraries(size_t bytes) const;
    void putCompanion() const;
    void setCompanion(const std::string& settings) const;

    // True when each of the six libraries beside the service is byte for byte the Keri software's.
    bool areLibrariesCopied() const;

    // The texts of service.log's records. Each must begin with the stamp, which is taken off; a system text's line
    // break within a record stays.
    std::vector<std::string> log() const;
    // Waits until the log has `count` records that begin with `text`.
    void awaitLog(const std::string& text, size_t count = 1) const;

    // The companion's records of one event, or all.
    std::vector<Record> records(const std::string& event = "") const;
    // Waits for the count-th record of an event.
    Record awaitRecord(const std::string& event, size_t count = 1) const;

    // Forgets log and records, for the next round in the same installation.
    void clearTraces() const;

    // Ends the programs of this installation that still run.
    void endPrograms() const;

private:
    TempDir m_directory;
    std::filesystem::path m_root;
};

} // namespace test
