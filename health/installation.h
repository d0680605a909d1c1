#pragma once

#include <optional>
#include <string>

#include "health/machine.h"

namespace health {

// Full paths of the parts of the installation to which this program belongs.
struct Installation {
    std::string root; // contains all others; without a separator at its end
    std::string bin;
    std::string health; // this program
    std::string service;
    std::string companion;
    std::string logs;
    std::string dumps;
    std::string temp;

    // A file's path in one of the directories above.
    static std::string in(const std::string& directory, const std::string& name) {
        return directory + machine::kSeparator + name;
    }

    // The installation of the program at `image`; nothing when that does not lie in a directory "bin".
    static std::optional<Installation> of(const std::string& image);

    // That of the running program.
    static std::optional<Installation> own();
};

// Whether two full paths from the system, or two names, are those of the same file. On Windows case does not count.
bool isSamePath(const std::string& left, const std::string& right);

} // namespace health
