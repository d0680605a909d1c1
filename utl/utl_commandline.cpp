#include "utl/utl_commandline.h"

#include <algorithm>
#include <cstdint>

namespace NS_UTL {
namespace {

constexpr char kDelimiter = ' ';
constexpr char kQuote = '"';

// Takes the text up to the next `end` from the front of `rest`, and the `end` with it.
std::string_view takeUntil(char end, std::string_view& rest) {
    const size_t length = std::min(rest.find(end), rest.size());
    const std::string_view taken = rest.substr(0, length);
    rest.remove_prefix(std::min(length + 1, rest.size()));
    return taken;
}

std::string_view takeWord(std::string_view& rest) {
    if (!rest.starts_with(kQuote)) return takeUntil(kDelimiter, rest);
    rest.remove_prefix(1);
    return takeUntil(kQuote, rest);
}

bool isBlank(char c) {
    return static_cast<uint8_t>(c) <= uint8_t{' '};
}

} // namespace

std::vector<std::string> splitCommandLine(std::string_view text) {
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view word = takeWord(text);
        if (!word.empty()) words.emplace_back(word);
    }
    return words;
}

std::string_view withoutProgram(std::string_view commandLine) {
    bool isQuoted = false;
    const auto* const nameEnd = std::find_if(commandLine.begin(), commandLine.end(), [&isQuoted](char c) {
        if (c == kQuote) isQuoted = !isQuoted;
        return isBlank(c) && !isQuoted;
    });
    const auto* const first = std::find_if_not(nameEnd, commandLine.end(), &isBlank);
    return commandLine.substr(static_cast<size_t>(first - commandLine.begin()));
}

} // namespace NS_UTL
