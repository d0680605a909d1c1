#pragma once

#include <string>

#include "health/installation.h"

namespace health {

// The result of --clear-orphan or --recover: sentences for the user, and the exit code, which is 2 when something
// failed.
struct Outcome {
    int exitCode = 0;
    std::string text;
};

// Ends the companions of this installation that have lost their service, and no other process. A process is
// such a companion when its program is bin's own by full path and its parent is no running service.
Outcome clearOrphans(const Installation& installation);

// Does the same, then starts the service unless it runs already, and waits for its process for up to 30 seconds. Fails
// to start it when another installation's service is registered.
Outcome recover(const Installation& installation);

} // namespace health
