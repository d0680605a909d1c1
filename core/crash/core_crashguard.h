#pragma once

namespace NS_CORE {

// The outermost frame of the process: a fault that nothing else handles leaves a dump, a line in the log and one in the
// dumps' history, and ends the application with a result of its own.

// The guard's result after a fault: 4294967169 as Windows shows an exit code, 129 as Linux does.
inline constexpr int kCrashResult = -127;

// The application's main function. The guard passes its arguments on.
using ApplicationMain = int (*)(int argc, char** argv);

// Runs applicationMain(argc, argv) under guard and returns its result, or kCrashResult after a fault.
//
// The guard covers the calling thread while applicationMain runs: invalid memory accesses, illegal
// instructions, divisions by zero, stack overflow, pure virtual calls, abort(), and C++ exceptions that nobody catches,
// not even the caller of guard; on Windows every other structured exception, too. Faults of other threads end the
// process as they do without a guard. If one of the words argv[1] and on is exactly "jitd", nothing is guarded, so that
// a debugger sees the fault where it happens.
//
// A fault writes the dump (crashNames in core_crashreport.h says where): on Windows a minidump, on Linux the stack
// trace as text. Then it logs "Wrote minidump for ..." or "Failed to write minidump for ..." at CRIT, and adds a line
// to dumps.log. The application's stack is abandoned without destructors, so other threads must not use what lies on
// it. The caller then ends the process in the ordinary way.
//
// The report may fail, but never keeps the process from ending. A step of the report that faults is skipped. A step
// that makes no progress for g_crashPatienceMs (core_crashreport.h) is skipped on Linux and ends the process on
// Windows. In every case, also after a fault on the way out, the process ends with kCrashResult.
//
// On Windows two threads wait for a fault: one writes the dump, on a stack of its own, and one, the watchdog, ends a
// report that hangs. Nothing that the faulting thread may hold is needed to wake them. The system's writer of dumps
// suspends the other threads of the process, the watchdog too. So a second process of the same program watches from
// outside until the dump is there (core_crashwatch_win32.h). If it cannot be started, the dump is written without it,
// and then a system's writer that hangs keeps the process alive. The tests prove the watch with writers that suspend
// the other threads. Windows' own writer cannot be made to hang under Wine: docs/release-checklist.md tries it.
//
// On Windows, from the first guard on, a bad argument to a function of the runtime library is logged at CRIT, on any
// thread, and the function returns its error to its caller.
//
// One guard at a time. applicationMain must not replace the handlers of the signals that faults raise, nor the
// terminate handler.
int guard(int argc, char** argv, ApplicationMain applicationMain);

} // namespace NS_CORE
