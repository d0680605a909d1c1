#pragma once

#include <cstdint>

namespace NS_UTL {

// Installs one handler for a signal of the runtime library while it lives, and puts the previous one back at its end.
// Objects for the same signal must be destroyed in the reverse order of their creation. Create and destroy them on one
// thread.
//
// Which thread runs the handler depends on the platform:
// - Windows: for console events a thread of the runtime's own; for a raised signal the thread that raises it. The
//   runtime resets a signal to its default action before it calls the handler, so a handler is called once.
// - Linux: always one thread of this unit's own, so that a handler may do whatever a thread may do: log, lock, use
//   sockets. Signals are handled one after the other, in the order of their arrival, and the handler stays installed.
//   A signal that has not been handled when its object ends is dropped. The destructor of the last object waits until a
//   handler at work has returned and the thread is gone; a handler must not destroy a Signal.
class Signal {
public:
    using Handler = void (*)(int signum);

    // A signal that cannot be installed is logged at WARN; the object then does nothing.
    Signal(int32_t signum, Handler handler);

    // A handler that cannot be put back is logged at WARN.
    ~Signal();

    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

private:
    int32_t m_signum;
    Handler m_previous = nullptr;
    bool m_isInstalled;
};

} // namespace NS_UTL
