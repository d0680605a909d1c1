#pragma once

#include <algorithm>
#include <string_view>

namespace test {

// The length of the time stamp at the beginning of a line of service.log, "2024-03-05 05 07:08:09 ", which has the day
// twice; 0 if the line has none.
inline size_t stampLength(std::string_view line) {
    constexpr std::string_view kShape = "dddd-dd-dd dd dd:dd:dd ";
    const auto fits = [](char inShape, char inLine) {
        return inShape == 'd' ? inLine >= '0' && inLine <= '9' : inShape == inLine;
    };
    const bool isStamp = line.size() >= kShape.size() && std::equal(kShape.begin(), kShape.end(), line.begin(), fits);
    return isStamp && line.substr(8, 2) == line.substr(11, 2) ? kShape.size() : 0;
}

} // namespace test
