#pragma once

#include <functional>
#include <string>
#include <vector>

#include "service/supervision.h"

// Stops that meet a fault or the loop's end on their way.
namespace service {

// The log of a loop that its companion's start stops, on a thread that `prepare` makes ready: it returns whether it
// could. Expects the loop to end, whatever becomes of the datagram.
std::vector<std::string> stopInVain(const std::function<bool()>& prepare);

// Calls `stop` while the companion runs, and expects the loop to end in the middle of it: whatever takes the place of
// one of stop's steps calls awaitTheLoopsEnd.
void stopThroughTheLoopsEnd(const std::function<void(Supervisor&)>& stop);

// Lets the companion end, and waits for the loop's end: the stop flag has to be cleared by then.
void awaitTheLoopsEnd();

} // namespace service
