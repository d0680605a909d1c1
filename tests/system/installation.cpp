#include "tests/system/installation.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/net/core_udp4socket.h"
#include "tests/support/stamp.h"
#include "tests/system/await.h"
#include "tests/system/platform.h"

namespace test {
namespace {

namespace fs = std::filesystem;

void placeCopy(const fs::path& from, const fs::path& to) {
    fs::remove(to);
    // The standard library's copy_file is in text mode on Windows.
    writeFile(to, readFile(from));
    fs::permissions(to, fs::perms::owner_all);
}

// A hard link where that is possible, because the program is large with its debug information.
void placeLink(const fs::path& from, const fs::path& to) {
    std::error_code error;
    fs::create_hard_link(from, to, error);
    if (error) placeCopy(from, to);
}

std::string readIfThere(const fs::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// Cheap and different in every place and in every library, so that a torn or shifted copy shows.
std::string libraryBytes(size_t library, size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 2463534242U + static_cast<uint32_t>(library);
    for (size_t at = 0; at < size; at += sizeof(state)) {
        state = state * 1664525U + 1013904223U;
        std::memcpy(&bytes[at], &state, std::min(sizeof(state), size - at));
    }
    return bytes;
}

Record parseRecord(const std::string& line) {
    Record record;
    std::istringstream in(line);
    in >> record.microseconds >> record.processId >> record.event;
    in.get();
    std::getline(in, record.text);
    return record;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += "  " + line + '\n';
    return text;
}

} // namespace

const std::vector<std::string> kLibraries = {"ClientSocketServices.dll", "DHS.dll",
                                             "DHS_Commands.dll",         "SocketServices.dll",
                                             "TracerX-Logger.dll",       "DHSAttributes.dll"};

std::string pathText(fs::path path) {
    return utf8(path.make_preferred());
}

void sendDatagram(uint16_t port, size_t length) {
    NS_CORE::Udp4Socket sender;
    const std::string bytes(length, 'x');
    if (!sender.open(/*flags=*/0, NS_CORE::kAnyAddress) ||
        !sender.send("127.0.0.1", port, bytes.data(), static_cast<uint32_t>(length)))
        throw std::runtime_error("The datagram cannot be sent");
}

Installation::Installation(std::string_view directoryName)
    : m_root(m_directory.path() / fs::path(std::u8string(directoryName.begin(), directoryName.end()))) {
    fs::create_directories(bin());
    fs::create_directories(logFile().parent_path());
    fs::create_directories(m_root / "settings");
    fs::create_directories(keri());
    placeLink(builtFile(SERVICE_PROGRAM), program());
    putCompanion();
    constexpr size_t kSmall = 1000;
    putLibraries(kSmall);
    registerKeri(m_root, pathText(keri()));
}

Installation::~Installation() {
    endPrograms();
    unregisterKeri(m_root);
}

fs::path Installation::program() const {
    return bin() / fs::path(SERVICE_PROGRAM).filename();
}

void Installation::putLibraries(size_t bytes) const {
    for (size_t i = 0; i < kLibraries.size(); ++i) writeFile(keri() / kLibraries[i], libraryBytes(i, bytes));
}

void Installation::putCompanion() const {
    // A file of its own: Wine takes two running programs that are the same file for one, and mixes up their paths.
    placeCopy(builtFile(COMPANION_PROGRAM), companion());
}

void Installation::setCompanion(const std::string& settings) const {
    writeFile(bin() / "quorkeri_wrapper.settings", settings);
}

bool Installation::areLibrariesCopied() const {
    for (const std::string& name : kLibraries) {
        if (!fs::exists(bin() / name) || readIfThere(bin() / name) != readIfThere(keri() / name)) return false;
    }
    return true;
}

std::vector<std::string> Installation::log() const {
    std::vector<std::string> entries;
    std::istringstream in(readIfThere(logFile()));
    for (std::string line; std::getline(in, line);) {
        if (const size_t length = stampLength(line))
            entries.push_back(line.substr(length));
        else if (!entries.empty())
            entries.back() += '\n' + line;
        else
            throw std::runtime_error("service.log begins without a stamp: " + line);
    }
    return entries;
}

void Installation::awaitLog(const std::string& text, size_t count) const {
    const auto isThere = [&] {
        size_t found = 0;
        for (const std::string& line : log()) found += line.starts_with(text);
        return found >= count;
    };
    if (!await(isThere)) throw std::runtime_error("No such log line: " + text + "\nThe log:\n" + joined(log()));
}

std::vector<Record> recordsIn(const fs::path& bin, const std::string& event) {
    std::vector<Record> found;
    const std::string bytes = readIfThere(bin / "quorkeri_wrapper.records");
    // Only whole lines count: the last one may be half read.
    std::istringstream in(bytes.substr(0, bytes.rfind('\n') + 1));
    for (std::string line; std::getline(in, line);) {
        const Record record = parseRecord(line);
        if (event.empty() || record.event == event) found.push_back(record);
    }
    return found;
}

std::vector<Record> Installation::records(const std::string& event) const {
    return recordsIn(bin(), event);
}

Record Installation::awaitRecord(const std::string& event, size_t count) const {
    if (!await([&] { return records(event).size() >= count; })) {
        std::vector<std::string> lines;
        for (const Record& record : records()) {
            if (record.event != "handle")
                lines.push_back(std::to_string(record.processId) + ' ' + record.event + ' ' + record.text);
        }
        throw std::runtime_error("The companion did not record '" + event + "' " + std::to_string(count) +
                                 " times. Its records:\n" + joined(lines) + "The log:\n" + joined(log()));
    }
    return records(event)[count - 1];
}

void Installation::clearTraces() const {
    fs::remove(bin() / "quorkeri_wrapper.records");
    fs::remove(logFile());
}

void Installation::endPrograms() const {
    endProcessesBelow(m_root);
}

} // namespace test
