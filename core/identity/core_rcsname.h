#pragma once

#include <string>
#include <string_view>

namespace NS_CORE {

// Which build this is and which machine it runs on, for reports and for the names of crash dumps. The build's values
// are stamped in by the build (cmake/QuorkeriStamp.cmake) and live until the process has ended. Any thread may ask,
// static initialisers included.

// The version-control keyword as stored: "$Name: TAG $".
std::string_view rcsTag();

// The version in a keyword: the text between "$Name: release_", or else "$Name: ", and " $". A keyword of
// another form fails a check and comes back as it is.
std::string rcsname(std::string_view keyword);

// The version of this build: rcsname(rcsTag()).
std::string version();

// Date and time of the build run, YYMMDD-HHMMSS.
const std::string& buildId();

// The version, '_' and the build id. A literal: asking for it allocates nothing, so a crash handler may.
const char* versionWithBuildId();

// When it was compiled: "Nov 20 2019", "16:03:44".
const char* buildDate();
const char* buildTime();

// Operating system and processor family, such as "win_i686".
std::string platform();

// The machine's name, asked of the system each time, at most 255 bytes; "?" when the system has none.
std::string hostName();

} // namespace NS_CORE
