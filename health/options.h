#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace health {

// What the program is asked to do.
struct Options {
    enum class Action { Check, Help, Version, ClearOrphan, Recover };

    Action action = Action::Check;
    bool isJson = false;
    uint32_t hours = 24; // how far back a crash counts, 1 to kMaxHours
    std::string error;   // empty, or a sentence about wrong words; the other members do not count then

    static constexpr uint32_t kMaxHours = 8760;
};

// words  those of the command line, without the program.
Options parseOptions(const std::vector<std::string>& words);

// For --help: the words, the exit codes, and every finding with its severity, its sentence and its cure.
std::string helpText();

// For --version: one line.
std::string versionText();

} // namespace health
