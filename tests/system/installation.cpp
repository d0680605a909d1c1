#include "tests/system/installation.h"

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "tests/system/await.h"
#include "tests/system/platform.h"

namespace test {
namespace {

namespace fs = std::filesystem;

// A second name for the same file where that can be had: a program is tens of megabytes with its debug information.
void place(const fs::path& from, const fs::path& to) {
    std::error_code error;
    fs::create_hard_link(from, to, error);
    if (error) fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

std::string readIfThere(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Cheap and different in every place, so that a torn or shifted copy shows.
std::string libraryBytes(size_t library, size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 2463534242U + static_cast<uint32_t>(library);
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

std::string unescaped(std::string text) {
    for (const auto& [code, plain] : {std::pair("%0A", "\n"), std::pair("%0D", "\r"), std::pair("%25", "%")}) {
        for (size_t at = 0; (at = text.find(code, at)) != std::string::npos; ++at) text.replace(at, 3, plain);
    }
    return text;
}

Record parseRecord(const std::string& line) {
    Record record;
    std::istringstream in(line);
    in >> record.microseconds >> record.processId >> record.event;
    in.get();
    std::getline(in, record.text);
    record.text = unescaped(record.text);
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

Installation::Installation(std::string_view directoryName)
    : m_root(m_directory.path() / fs::path(std::u8string(directoryName.begin(), directoryName.end()))) {
    fs::create_directories(bin());
    fs::create_directories(logFile().parent_path());
    fs::create_directories(m_root / "settings");
    fs::create_directories(keri());
    place(SERVICE_PROGRAM, program());
    putCompanion();
    constexpr size_t kSmall = 1000;
    putLibraries(kSmall);
    registerKeri(m_root, pathText(keri()));
}

Installation::~Installation() {
    endCompanions();
    unregisterKeri(m_root);
}

fs::path Installation::program() const {
    return bin() / fs::path(SERVICE_PROGRAM).filename();
}

void Installation::putLibraries(size_t bytes) const {
    for (size_t i = 0; i < kLibraries.size(); ++i) writeFile(keri() / kLibraries[i], libraryBytes(i, bytes));
}

void Installation::putCompanion() const {
    fs::remove(companion());
    place(COMPANION_PROGRAM, companion());
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
    static const std::regex stamp(R"(^(\d{4})-(\d\d)-(\d\d) (\d\d) \d\d:\d\d:\d\d )");
    std::vector<std::string> entries;
    std::istringstream in(readIfThere(logFile()));
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        const bool isEntry = std::regex_search(line, match, stamp) && match[3] == match[4];
        if (isEntry)
            entries.push_back(match.suffix());
        else if (!entries.empty())
            entries.back() += '\n' + line;
        else
            throw std::runtime_error("service.log begins without a stamp: " + line);
    }
    return entries;
}

void Installation::awaitLog(const std::string& text, size_t count, std::chrono::milliseconds limit) const {
    const auto isThere = [&] {
        size_t found = 0;
        for (const std::string& line : log()) found += line.starts_with(text);
        return found >= count;
    };
    if (!await(isThere, limit)) throw std::runtime_error("No such log line: " + text + "\nThe log:\n" + joined(log()));
}

std::vector<Record> Installation::records(const std::string& event) const {
    std::vector<Record> found;
    const std::string bytes = readIfThere(bin() / "quorkeri_wrapper.records");
    // Only whole lines count: the last one may be half read.
    std::istringstream in(bytes.substr(0, bytes.rfind('\n') + 1));
    for (std::string line; std::getline(in, line);) {
        const Record record = parseRecord(line);
        if (event.empty() || record.event == event) found.push_back(record);
    }
    return found;
}

Record Installation::awaitRecord(const std::string& event, size_t count, std::chrono::milliseconds limit) const {
    if (!await([&] { return records(event).size() >= count; }, limit)) {
        throw std::runtime_error("The companion did not record '" + event + "' " + std::to_string(count) +
                                 " times. The log:\n" + joined(log()));
    }
    return records(event)[count - 1];
}

void Installation::clearTraces() const {
    fs::remove(bin() / "quorkeri_wrapper.records");
    fs::remove(logFile());
}

void Installation::endCompanions() const {
    std::set<uint32_t> running;
    for (const Record& record : records()) {
        if (record.event == "started") running.insert(record.processId);
        if (record.event == "ending") running.erase(record.processId);
    }
    for (const uint32_t processId : running) {
        endProcess(processId, m_root);
        static_cast<void>(await([&] { return !processRuns(processId, m_root); }, std::chrono::seconds(2)));
    }
}

} // namespace test
