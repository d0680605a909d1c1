#pragma once

#include <string>

namespace test {

// Makes `zone` the process's time zone: a TZ text that both platforms read alike ("UTC0", "CET-1", "XXX5:30": the sign
// is that of POSIX, west of Greenwich is positive). A test case has a process of its own, so nothing is put back.
void setTimeZone(const std::string& zone);

} // namespace test
