#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/require.h"
#include "service/argumentvector.h"
#include "utl/utl_commandline.h"

namespace {

// The same words, spelled so that they split in one way only.
std::string quoted(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        const bool needsQuotes = word.find(' ') != std::string::npos;
        text += needsQuotes ? '"' + word + '"' : word;
        text += ' ';
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An allocation of its exact size, so that reading past the end is seen.
    const std::unique_ptr<char[]> copy(new char[size]);
    for (size_t i = 0; i < size; ++i) copy[i] = static_cast<char>(data[i]);
    const std::string_view text(copy.get(), size);

    const std::vector<std::string> words = NS_UTL::splitCommandLine(text);
    size_t total = 0;
    for (const std::string& word : words) {
        require(!word.empty());
        require(text.find(word) != std::string_view::npos);
        total += word.size();
    }
    require(total <= size);
    require(text.ends_with(NS_UTL::withoutProgram(text)));

    // A word holds blanks only if it was quoted, and then no quote: writing it down again gives it again.
    for (const std::string& word : words)
        require(word.find(' ') == std::string::npos || word.find('"') == std::string::npos);
    require(NS_UTL::splitCommandLine(quoted(words)) == words);

    service::ArgumentVector arguments("program", words);
    require(arguments.count() == static_cast<int>(words.size()) + 1);
    require(arguments.values()[arguments.count()] == nullptr);
    return 0;
}
