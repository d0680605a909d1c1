#include "core/crash/internal/core_seh_win32.h"

#include <windows.h>

namespace NS_CORE {

#if !defined(__GNUC__) || !defined(__i386__)
#error "The frame below is that of 32-bit x86"
#endif

// GCC has no __try for this processor, so this unit builds by hand the frame that __try would build. Windows calls
// handlers on the stack only for images that may have some: never link with --no-seh.
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

// The compiler does not know that the system reads the frame; the barriers keep it from dropping or moving stores.
void setFrameChain(EXCEPTION_REGISTRATION_RECORD* head) {
    asm volatile("" ::: "memory");
    __writefsdword(0, reinterpret_cast<DWORD>(head));
    asm volatile("" ::: "memory");
}

// The system calls it with the stack alignment of the fault.
[[gnu::force_align_arg_pointer]] EXCEPTION_DISPOSITION __cdecl handleException(EXCEPTION_RECORD* exception, void* frame,
                                                                               CONTEXT* processor, void*) {
    if ((exception->ExceptionFlags & (EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND)) != 0)
        return ExceptionContinueSearch;
    // In memory, because RtlUnwind does not preserve the registers on every system.
    GuardFrame* volatile guard = static_cast<GuardFrame*>(frame);
    EXCEPTION_POINTERS pointers{exception, processor};
    if (guard->filter(&pointers, guard->context) != SehVerdict::ExecuteHandler) return ExceptionContinueSearch;
    RtlUnwind(frame, /*TargetIp=*/nullptr, exception, /*ReturnValue=*/nullptr);
    __builtin_longjmp(guard->resume, 1);
}

// Also unlinks the frame when a C++ exception leaves the scope.
class LinkedFrame {
public:
    explicit LinkedFrame(EXCEPTION_REGISTRATION_RECORD& record) : m_outer(record.Next) { setFrameChain(&record); }
    ~LinkedFrame() { setFrameChain(m_outer); }
    LinkedFrame(const LinkedFrame&) = delete;
    LinkedFrame& operator=(const LinkedFrame&) = delete;

private:
    EXCEPTION_REGISTRATION_RECORD* m_outer;
};

} // namespace

[[gnu::noinline]] SehOutcome runGuarded(void (*body)(void*), SehVerdict (*filter)(_EXCEPTION_POINTERS*, void*),
                                        void* context) {
    GuardFrame guard{};
    guard.record.Next = frameChain();
    guard.record.Handler = reinterpret_cast<PEXCEPTION_ROUTINE>(&handleException);
    guard.filter = filter;
    guard.context = context;
    if (__builtin_setjmp(guard.resume) != 0) {
        setFrameChain(guard.record.Next);
        return SehOutcome::Caught;
    }
    const LinkedFrame linked(guard.record);
    body(context);
    return SehOutcome::Returned;
}

} // namespace NS_CORE
