#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace test {

// The text with "TIME" for each line's time stamp, "2019-11-20 14:49:57". Lines without one stay as they are.
inline std::string withoutTimes(std::string_view text) {
    constexpr std::string_view kShape = "dddd-dd-dd dd:dd:dd";
    const auto matches = [](char shape, char actual) {
        return shape == 'd' ? actual >= '0' && actual <= '9' : shape == actual;
    };
    std::string result;
    while (!text.empty()) {
        std::string_view line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
        text.remove_prefix(line.size());
        if (line.size() >= kShape.size() && std::equal(kShape.begin(), kShape.end(), line.begin(), matches)) {
            result += "TIME";
            line.remove_prefix(kShape.size());
        }
        result += line;
    }
    return result;
}

} // namespace test
