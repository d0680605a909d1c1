#include "core/files/core_settingsfile.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "absl/strings/numbers.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kReadSettingsFile = "CORE::readSettingsFile";
constexpr std::string_view kBetweenTokens = " \n\r\t";

} // namespace

bool readSettingsFile(const std::string& path, const std::function<void(std::string_view line)>& addLine) {
    const ScopedStream file(Wrapper::fopen(path, "r"));
    if (!file) return false;
    std::array<char, kMaxSettingsLine + 1> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr) {
        const std::string_view text(line.data());
        addLine(text.substr(0, text.find('\n')));
    }
    if (std::ferror(file.get()) != 0)
        MLOG(Warn, kReadSettingsFile, "failed reading '%s': %s", path, std::strerror(errno));
    return true;
}

std::vector<std::string_view> settingsTokens(std::string_view line) {
    std::vector<std::string_view> tokens;
    size_t start = line.find_first_not_of(kBetweenTokens);
    while (start != std::string_view::npos) {
        const size_t end = line.find_first_of(kBetweenTokens, start);
        tokens.push_back(line.substr(start, end == std::string_view::npos ? end : end - start));
        start = end == std::string_view::npos ? end : line.find_first_not_of(kBetweenTokens, end);
    }
    return tokens;
}

std::optional<int32_t> settingsNumber(std::string_view token) {
    int32_t number = 0;
    if (!absl::SimpleAtoi(absl::string_view(token.data(), token.size()), &number)) return std::nullopt;
    return number;
}

} // namespace NS_CORE
