#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "health/installation.h"

namespace health {

// The name of a placeholder, which stands in braces in a finding's sentence or cure, and the text that replaces it.
using Value = std::pair<std::string_view, std::string>;
using Values = std::vector<Value>;

// A path as a word of a command: in double quotes if it contains a character that means something at a prompt.
std::string quoted(const std::string& path);

// The platform's commands that cures tell people to type.
// serviceId  the id of the service's process, or a word in its place, for platforms that stop a service by a signal.
Values commandsOf(const Installation& installation, const std::string& serviceId);

// The command that ends a process.
std::string endCommand(const std::string& processId);

// A usual place of an installation, for examples.
extern const char* const kSampleRoot;

} // namespace health
