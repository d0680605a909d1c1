#pragma once

#include <string>

// Copies the libraries of the Keri software that the companion needs beside it. Called once per run of the service,
// before the companion is started, on the run callback's thread; blocks as long as the copying takes. No outcome stops
// the service: every failure is logged, nothing is retried.
namespace service {

// Returns the installation directory of the Keri software, exactly as its uninstall entry in the registry holds it (a
// separator at its end is kept), or an empty text when it cannot be found (logged at CRIT; a missing value at most
// once an hour).
std::string getKeriInstallDir();

// Copies the six libraries from there into the running executable's directory and overwrites those that are there. A
// library that cannot be copied is logged at WARN and skipped.
void CopyDependencies();

} // namespace service
