#include "core/crash/internal/core_seh_win32.h"

#include <windows.h>

namespace NS_CORE {

#if defined(_MSC_VER)

SehOutcome runGuarded(void (*body)(void*), SehVerdict (*filter)(_EXCEPTION_POINTERS*, void*), void* context) {
    __try {
        body(context);
    } __except (static_cast<int>(filter(GetExceptionInformation(), context))) {
        return SehOutcome::Caught;
    }
    return SehOutcome::Returned;
}

#elif defined(__GNUC__) && defined(__i386__)

// GCC has no __try for this processor, so the frame that __try would have built is built by hand. Handlers found on
// the stack are honoured only while the image does not claim to have none: never link with --no-seh.
namespace {

struct GuardFrame {
    EXCEPTION_REGISTRATION_RECORD record; // first, because the system hands its address to the handler
    SehVerdict (*filter)(EXCEPTION_POINTERS*, void*);
    void* context;
    void* resume[5]; // for __builtin_setjmp
};

EXCEPTION_REGISTRATION_RECORD* frameChain() {
    return reinterpret_cast<EXCEPTION_REGISTRATION_RECORD*>(__readfsdword(0));
}

// The barriers keep the compiler, which does not know that the system reads the frame, from dropping or moving
// the stores to it.
void setFrameChain(EXCEPTION_REGISTRATION_RECORD* head) {
    asm volatile("" ::: "memory");
    __writefsdword(0, reinterpret_cast<DWORD>(head));
    asm volatile("" ::: "memory");
}

// The system calls it with whatever stack alignment the fault left.
[[gnu::force_align_arg_pointer]] EXCEPTION_DISPOSITION __cdecl handleException(EXCEPTION_RECORD* exception, void* frame,
                                                                               CONTEXT* processor, void*) {
    if ((exception->ExceptionFlags & (EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND)) != 0)
        return ExceptionContinueSearch;
    // In memory, because RtlUnwind does not keep the registers on every system.
    GuardFrame* volatile guard = static_cast<GuardFrame*>(frame);
    EXCEPTION_POINTERS pointers{exception, processor};
    if (guard->filter(&pointers, guard->context) != SehVerdict::ExecuteHandler) return ExceptionContinueSearch;
    RtlUnwind(frame, /*TargetIp=*/nullptr, exception, /*ReturnValue=*/nullptr);
    __builtin_longjmp(guard->resume, 1);
}

} // namespace

[[gnu::noinline]] SehOutcome runGuarded(void (*body)(void*), SehVerdict (*filter)(_EXCEPTION_POINTERS*, void*),
                                        void* context) {
    EXCEPTION_REGISTRATION_RECORD* const outer = frameChain();
    GuardFrame guard{};
    guard.record.Next = outer;
    guard.record.Handler = reinterpret_cast<PEXCEPTION_ROUTINE>(&handleException);
    guard.filter = filter;
    guard.context = context;
    if (__builtin_setjmp(guard.resume) != 0) {
        setFrameChain(guard.record.Next);
        return SehOutcome::Caught;
    }
    setFrameChain(&guard.record);
    body(context);
    setFrameChain(outer);
    return SehOutcome::Returned;
}

#else
#error "No structured-exception guard for this compiler and processor"
#endif

} // namespace NS_CORE
