// Any text splits as a Windows program would find it: the words of a command line that is made of words are these
// words, and no text takes the splitter beyond its end.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "utl/utl_commandline.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

bool isBlank(char character) {
    return character == ' ' || character == '\t';
}

// An argument between quotes: a backslash counts double in front of one, and at the end.
std::string quoted(std::string_view word) {
    std::string text = "\"";
    size_t backslashes = 0;
    for (const char character : word) {
        if (character == '\\') {
            ++backslashes;
            continue;
        }
        text.append(character == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        text += character;
    }
    return text.append(2 * backslashes, '\\') + '"';
}

// Nothing is made up: what the words hold has been in the text.
void checkText(std::string_view text, const std::vector<std::string>& words) {
    size_t total = 0;
    for (const std::string& word : words) total += word.size();
    require(total <= text.size());
    size_t blanks = 0;
    while (blanks < text.size() && isBlank(text[blanks])) ++blanks;
    require(words.empty() == (blanks == text.size()));
    for (size_t i = 1; i < words.size(); ++i)
        require(!words[i].empty() || text.find("\"\"") != std::string_view::npos || text.back() == '"');
}

// Written down in quotes, the words come back. The program's name has no way to hold a quote.
void checkRoundTrip(std::vector<std::string> words) {
    if (words.empty()) return;
    std::erase(words[0], '"');
    std::string text = '"' + words[0] + '"';
    for (size_t i = 1; i < words.size(); ++i) text += ' ' + quoted(words[i]);
    require(NS_UTL::splitCommandLine(text) == words);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of its own size, so that reading on behind the text is seen.
    const std::vector<char> copy(data, data + size);
    const std::string_view text(copy.data(), copy.size());
    const std::vector<std::string> words = NS_UTL::splitCommandLine(text);
    checkText(text, words);
    checkRoundTrip(words);
    return 0;
}
