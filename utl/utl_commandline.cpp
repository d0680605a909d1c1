#include "utl/utl_commandline.h"

#include <algorithm>

namespace NS_UTL {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr char kQuote = '"';

void skipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
}

std::string_view take(std::string_view& text, size_t count) {
    const std::string_view taken = text.substr(0, count);
    text.remove_prefix(taken.size());
    return taken;
}

std::string takeProgram(std::string_view& text) {
    if (text.front() != kQuote) return std::string(take(text, text.find_first_of(kBlanks)));
    text.remove_prefix(1);
    const std::string program(take(text, text.find(kQuote)));
    take(text, 1);
    return program;
}

// A run of backslashes, and the quote behind it when that is an ordinary character.
void takeBackslashes(std::string_view& text, std::string& word) {
    const size_t count = std::min(text.find_first_not_of('\\'), text.size());
    text.remove_prefix(count);
    if (text.empty() || text.front() != kQuote) {
        word.append(count, '\\');
        return;
    }
    word.append(count / 2, '\\');
    if (count % 2 != 0) word += take(text, 1);
}

std::string takeArgument(std::string_view& text) {
    std::string word;
    bool isQuoted = false;
    while (!text.empty()) {
        const char next = text.front();
        if (next == '\\') {
            takeBackslashes(text, word);
        } else if (next == kQuote) {
            take(text, 1);
            if (isQuoted && text.starts_with(kQuote))
                word += take(text, 1);
            else
                isQuoted = !isQuoted;
        } else if (!isQuoted && kBlanks.find(next) != std::string_view::npos) {
            break;
        } else {
            word += take(text, 1);
        }
    }
    return word;
}

} // namespace

std::vector<std::string> splitCommandLine(std::string_view commandLine) {
    std::vector<std::string> words;
    skipBlanks(commandLine);
    if (commandLine.empty()) return words;
    words.push_back(takeProgram(commandLine));
    for (skipBlanks(commandLine); !commandLine.empty(); skipBlanks(commandLine))
        words.push_back(takeArgument(commandLine));
    return words;
}

} // namespace NS_UTL
