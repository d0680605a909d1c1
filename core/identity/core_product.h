#pragma once

#include <string>

namespace NS_CORE {

// The name of the product that this process is part of, for the reports that leave the machine. The application sets
// it once at start-up, before other threads exist; then any thread may read it. Empty until then.
void setProductIdentifier(std::string identifier);
const std::string& productIdentifier();

} // namespace NS_CORE
