#pragma once

namespace test {

// From now on the kernel refuses the calling thread this system call, with that errno, as a sandbox would. There is no
// way back: do it on a thread of the test's own, whose end is the end of it.
void refuseCall(long systemCall, int error);

} // namespace test
