#pragma once

#include <memory>

// Faults that a stop can meet.
namespace service {

// The fault lasts as long as its Refusal; on Linux, as long as the calling thread. Null if it cannot be made.
using Refusal = std::shared_ptr<void>;

// No socket can be made. Linux refuses the calling thread alone, Windows the whole process; so for datagrams.
Refusal refuseSockets();

// Sending a datagram fails with ENETUNREACH.
Refusal refuseDatagrams();

} // namespace service
