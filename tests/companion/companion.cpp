#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "tests/companion/companion_platform.h"

// A stand-in for the program that the service supervises. It writes what happens to it, one line per event, into
// quorkeri_wrapper.records beside itself:
//
//     <steady clock, microseconds> <process id> <event> <text>
//
// started, command (the command line), directory, then handle (as often as there are any), then ready (the port is
// bound) or unbound (with the error), datagram (length and sender) and ending (the exit code).
//
// It ends by itself after ten minutes. What it does is in quorkeri_wrapper.settings, also beside it, one "name value"
// per line; without it the program listens on UDP 127.0.0.1:34002 and ends with 0 on any datagram.
//
//     ignore N      takes N datagrams before one ends it ("all": none ever does)
//     exit CODE     ends at once with this code
//     crash         faults at once
//     quick         looks for the datagram without a pause and ends at once when it is there, without a record
//     prompt        ends at once when the datagram is there, without a record
//     hold FILE     keeps this file open
//     mute          binds no port and stays until it is ended
namespace {

using Settings = std::map<std::string, std::string>;

std::filesystem::path pathOf(const std::string& text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

Settings readSettings(const std::filesystem::path& file) {
    Settings settings;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
        const size_t blank = line.find(' ');
        if (!line.empty()) settings[line.substr(0, blank)] = blank == std::string::npos ? "" : line.substr(blank + 1);
    }
    return settings;
}

class Records {
public:
    explicit Records(std::filesystem::path file) : m_file(std::move(file)) {}

    static std::string line(const std::string& event, const std::string& text) {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) + ' ' +
               std::to_string(companion::processId()) + ' ' + event + ' ' + text + '\n';
    }
    void add(const std::string& event, const std::string& text) const { companion::append(m_file, line(event, text)); }
    void addLines(const std::string& lines) const { companion::append(m_file, lines); }

private:
    std::filesystem::path m_file;
};

std::string startRecords(const std::vector<std::string>& openThings) {
    std::string lines = Records::line("started", "");
    lines += Records::line("command", companion::commandLine());
    const std::u8string directory = std::filesystem::current_path().u8string();
    lines += Records::line("directory", std::string(directory.begin(), directory.end()));
    for (const std::string& text : openThings) lines += Records::line("handle", text);
    return lines;
}

int end(const Records& records, int code) {
    records.add("ending", std::to_string(code));
    return code;
}

// A companion that nobody ends any more, because its test was killed, must not keep the port for ever.
void endAfterTenMinutes() {
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::minutes(10));
        companion::endNow(9);
    }).detach();
}

[[noreturn]] void stayForever() {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

int serve(const Settings& settings, const Records& records) {
    constexpr uint16_t kPort = 34002;
    companion::StopPort port;
    if (const int error = port.open(kPort)) {
        records.add("unbound", std::to_string(error));
        return end(records, 2);
    }
    records.add("ready", std::to_string(kPort));
    if (settings.contains("quick")) {
        port.spin();
        companion::endNow(0);
    }
    if (settings.contains("prompt")) {
        port.receive();
        companion::endNow(0);
    }
    const std::string ignored = settings.contains("ignore") ? settings.at("ignore") : "0";
    const long long limit = ignored == "all" ? -1 : std::stoll(ignored);
    for (long long count = 0; limit < 0 || count <= limit; ++count) {
        const auto datagram = port.receive();
        if (!datagram) return end(records, 3);
        records.add("datagram", std::to_string(datagram->length) + ' ' + datagram->sender);
    }
    return end(records, 0);
}

} // namespace

int main() {
    const std::vector<std::string> openThings = companion::openThings();
    const std::filesystem::path directory = companion::ownFile().parent_path();
    const Records records(directory / "quorkeri_wrapper.records");
    const Settings settings = readSettings(directory / "quorkeri_wrapper.settings");
    records.addLines(startRecords(openThings));
    endAfterTenMinutes();
    if (settings.contains("crash")) companion::crash();
    if (settings.contains("exit")) return end(records, std::stoi(settings.at("exit")));
    if (settings.contains("hold") && !companion::hold(directory / pathOf(settings.at("hold")))) return end(records, 4);
    if (settings.contains("mute")) {
        records.add("ready", "0");
        stayForever();
    }
    return serve(settings, records);
}
