#pragma once

#include <memory>

// Faults that a stop can meet.
namespace service {

// Lasts as long as this, on Linux as long as the thread that asked for it. Null where it cannot be made.
using Refusal = std::shared_ptr<void>;

// No socket for the calling thread; none of its datagrams leaves, and errno is ENETUNREACH then.
Refusal refuseSockets();
Refusal refuseDatagrams();

} // namespace service
