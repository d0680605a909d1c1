#pragma once

namespace test {

// Leaves this process, until it ends, no memory for 2 GiB in one piece. False where that cannot be done.
bool limitMemory();

} // namespace test
