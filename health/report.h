#pragma once

#include <string>
#include <vector>

#include "health/facts.h"
#include "health/findings.h"

namespace health {

// One line for a person and for monitoring: "OK: the service runs ... | figures", or every finding with its cure.
std::string lineOf(const Facts& facts, const std::vector<Finding>& findings);

// The same for a program, with what the findings were drawn from: one JSON object.
std::string jsonOf(const Facts& facts, const std::vector<Finding>& findings);

} // namespace health
