#include "service/commandline.h"

#include <algorithm>
#include <utility>

namespace service {
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

} // namespace

std::vector<std::string> splitCommandLine(std::string_view text) {
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view word = takeWord(text);
        if (!word.empty()) words.emplace_back(word);
    }
    return words;
}

ArgumentVector::ArgumentVector(std::string program, std::vector<std::string> words) : m_words(std::move(words)) {
    m_words.insert(m_words.begin(), std::move(program));
    for (std::string& word : m_words) m_pointers.push_back(word.data());
    m_pointers.push_back(nullptr);
}

} // namespace service
