#pragma once

namespace NS_CORE {

// The outermost frame of the process: a fault that nothing else handles leaves a dump, a line in the log and one in the
// dumps' history, and ends the application with a result of its own.

// The guard's result after a fault: 4294967169 as Windows shows an exit code, 129 as Linux does.
inline constexpr int kCrashResult = -127;

// The application's main function. The guard hands its arguments on.
using ApplicationMain = int (*)(int argc, char** argv);

// Runs applicationMain(argc, argv) under guard and answers its result, or kCrashResult after a fault.
//
// Guarded is the calling thread, as long as applicationMain runs: accesses to memory that is not there, illegal
// instructions, divisions by zero, stack overflow, pure virtual calls, abort(), and C++ exceptions that nobody
// catches, the caller of guard included; on Windows every other structured exception too. Faults of other threads end
// the process as they do without a guard. When one of the words argv[1] and on is exactly "jitd", nothing is guarded,
// so that a debugger sees the fault where it happens.
//
// A fault writes the dump (crashNames, core_crashreport.h, says where): on Windows a minidump, on Linux the stack
// trace as text. Then it logs "Wrote minidump for ..." or "Failed to write minidump for ..." at CRIT, whichever is
// true, and adds a line to dumps.log. All of it is done on this thread while others run on, without another lock than
// the logger's and, for five seconds at most, the symbol library's. The application's stack is given up without
// destructors; the caller goes on with the ordinary way out of the process.
//
// The report may fail, never keep the process: what faults in it is left out, and what takes too long
// (g_crashPatienceMs, core_crashreport.h) is left out on Linux and ends the process on Windows. That, and a fault on
// the way out, ends it with kCrashResult as well.
//
// On Windows a bad argument to a function of the runtime library is logged at CRIT from then on, on any thread, and
// the function returns its error to its caller.
//
// One guard at a time. applicationMain must not replace the handlers of the signals that faults raise, nor the
// terminate handler.
int guard(int argc, char** argv, ApplicationMain applicationMain);

} // namespace NS_CORE
