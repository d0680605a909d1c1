// Any bytes are a settings file: its lines are those that the bytes have, each cut at its first NUL and where it is too
// long for a line.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/files/core_settingsfile.h"
#include "fuzz/require.h"

namespace {

std::vector<std::string> expectedLines(std::string_view bytes) {
    std::vector<std::string> lines;
    while (!bytes.empty()) {
        std::string_view line = bytes.substr(0, NS_CORE::kMaxSettingsLine);
        line = line.substr(0, line.find('\n'));
        const bool isEnded = line.size() < NS_CORE::kMaxSettingsLine && line.size() < bytes.size();
        bytes.remove_prefix(line.size() + (isEnded ? 1 : 0));
        lines.emplace_back(line.substr(0, line.find('\0')));
    }
    return lines;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    // One file for all inputs, opened anew for each.
    static const int file = ::memfd_create("settings", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    require(::ftruncate(file, 0) == 0);
    require(::pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    std::vector<std::string> lines;
    require(NS_CORE::readSettingsFile(path, [&lines](std::string_view line) { lines.emplace_back(line); }));
    require(lines == expectedLines(bytes));
    for (const std::string& line : lines) {
        size_t length = 0;
        for (const std::string_view token : NS_CORE::settingsTokens(line)) {
            require(token.find_first_of(" \t\r\n") == std::string_view::npos);
            length += token.size();
            if (const auto number = NS_CORE::settingsNumber(token))
                require(std::to_string(*number) == token || token[0] == '+' || token[0] == '0' || token[0] == '-' ||
                        token.find_first_not_of("0123456789") != std::string_view::npos);
        }
        require(length == static_cast<size_t>(std::count_if(line.begin(), line.end(), [](char character) {
                    return std::string_view(" \t\r\n").find(character) == std::string_view::npos;
                })));
    }
    return 0;
}
