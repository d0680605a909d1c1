#pragma once

#include <string>

namespace NS_CORE {

// The name of the product that this process is part of, for what leaves the machine (assertion reports). Set once by
// the application's start, before other threads exist; empty until then.
void setProductIdentifier(std::string identifier);
const std::string& productIdentifier();

} // namespace NS_CORE
