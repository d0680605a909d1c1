#pragma once

#include <string>

namespace NS_CORE {

// (to be written by its owner: see the brief)
template <class... Args>
void formatInto(std::string& out, const char* format, const Args&... args);

template <class... Args>
std::string formatString(const char* format, const Args&... args);

} // namespace NS_CORE
