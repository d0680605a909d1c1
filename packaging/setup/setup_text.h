#pragma once

#include <string>
#include <vector>

namespace setup {

// The data of a deferred action: `count` parts with '|' between them. The last part may contain '|' itself; parts
// that are missing are empty.
std::vector<std::wstring> splitData(const std::wstring& data, size_t count);

// The system's text for one of its codes, without line end, and the number behind it.
std::wstring errorText(unsigned long code);

} // namespace setup
