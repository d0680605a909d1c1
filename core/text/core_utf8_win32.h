#pragma once

#include <string>

namespace NS_CORE {

// toUtf8 (core_utf8.h) for a terminated wide text of the system; null counts as empty.
std::string toUtf8(const wchar_t* wide);

} // namespace NS_CORE
