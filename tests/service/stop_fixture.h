#pragma once

#include <functional>
#include <string>
#include <vector>

#include "service/supervision.h"

// Stops that meet a fault or the loop's end on their way.
namespace service {

// Runs a loop that stops itself as soon as it starts its companion, and returns the log. Expects the loop to end,
// whatever becomes of the datagram. `prepare` runs first on the loop's thread; false skips the loop.
std::vector<std::string> stopInVain(const std::function<bool()>& prepare);

// Calls `stop` while the companion runs. The test replaces one of stop's steps by a function that calls
// awaitTheLoopsEnd, so that the loop ends in the middle of the stop.
void stopThroughTheLoopsEnd(const std::function<void(Supervisor&)>& stop);

// Lets the companion end, and waits for the loop's end: the stop flag has to be cleared by then.
void awaitTheLoopsEnd();

} // namespace service
