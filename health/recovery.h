#pragma once

#include <string>

#include "health/installation.h"

namespace health {

// What became of --clear-orphan or --recover: sentences, and 0 when all is as it was asked for, else 2.
struct Outcome {
    int exitCode = 0;
    std::string text;
};

// Ends the companions of this installation that have lost their service, and no other process. That it is one is
// settled by its program's full path and by its parent, which must not be a running service.
Outcome clearOrphans(const Installation& installation);

// The same; then starts the service, unless it runs, and waits until its process does, 30 seconds at most. Does nothing
// when another installation's service is registered.
Outcome recover(const Installation& installation);

} // namespace health
