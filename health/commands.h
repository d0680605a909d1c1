#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "health/installation.h"

namespace health {

// A name that a finding's sentence or cure has in braces, and the text for its place.
using Value = std::pair<std::string_view, std::string>;
using Values = std::vector<Value>;

// A path as a word of a command: in double quotes where a prompt would take a character of it for its own.
std::string quoted(const std::string& path);

// The commands that cures tell people to type, in the platform's own words.
// serviceId  the service's process, for platforms where a service is stopped by a signal; a number or a word for it.
Values commandsOf(const Installation& installation, const std::string& serviceId);

// The command that ends a process.
std::string endCommand(const std::string& processId);

// A usual place of an installation, for examples.
extern const char* const kSampleRoot;

} // namespace health
