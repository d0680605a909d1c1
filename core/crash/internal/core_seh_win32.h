#pragma once

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is Windows'.
struct _EXCEPTION_POINTERS; // <windows.h> stays out of headers

namespace NS_CORE {

// What a filter may return. The values are those of EXCEPTION_EXECUTE_HANDLER and EXCEPTION_CONTINUE_SEARCH.
enum class SehVerdict : int { ContinueSearch = 0, ExecuteHandler = 1 };

enum class SehOutcome { Returned, Caught };

// Runs body(context) inside a structured-exception guard, as __try/__except does.
//
// A structured exception that nothing inside handles calls filter(exception, context) on the faulting thread, on top
// of the stack as the fault left it. With ExecuteHandler the stack is unwound and runGuarded returns Caught, without
// the destructors between the fault and this call. With ContinueSearch the search continues outside. A fault inside the
// filter calls the same filter again. A C++ exception is not a structured one and passes through.
//
// Covers the calling thread only. Guards may be nested.
SehOutcome runGuarded(void (*body)(void* context), SehVerdict (*filter)(_EXCEPTION_POINTERS* exception, void* context),
                      void* context);

} // namespace NS_CORE
