// Any bytes are a list of exclusions: every entry with a date of the build's day or later is found, and no other.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "core/files/core_settingsfile.h"
#include "core/report/internal/core_assertexclusions.h"
#include "fuzz/require.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    NS_CORE::AssertExclusions exclusions("Nov  5 2019");
    std::vector<std::string_view> lines;
    while (!bytes.empty()) {
        lines.push_back(bytes.substr(0, bytes.find('\n')));
        exclusions.addLine(lines.back());
        bytes.remove_prefix(lines.back().size() == bytes.size() ? bytes.size() : lines.back().size() + 1);
    }
    exclusions.finish();
    size_t counted = 0;
    for (const std::string_view line : lines) {
        NS_CORE::AssertExclusions alone("Nov  5 2019");
        alone.addLine(line);
        alone.finish();
        counted += alone.size();
        if (alone.size() == 0) continue;
        const std::vector<std::string_view> tokens = NS_CORE::settingsTokens(line);
        require(tokens.size() >= 3 && tokens[2].size() == 10 && tokens[2] >= "2019-11-05");
        require(exclusions.contains(tokens[0], NS_CORE::settingsNumber(tokens[1]).value()));
    }
    require(counted == exclusions.size());
    require(!exclusions.contains("", 0));
    return 0;
}
