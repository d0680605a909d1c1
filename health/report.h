#pragma once

#include <string>
#include <vector>

#include "health/facts.h"
#include "health/findings.h"

namespace health {

// One line for a person and for monitoring: "OK: service process 4711 has run since ... | figures", or all findings
// with their cures in place of the sentence.
std::string lineOf(const Facts& facts, const std::vector<Finding>& findings);

// The same for a program, with the facts: one JSON object.
std::string jsonOf(const Facts& facts, const std::vector<Finding>& findings);

} // namespace health
