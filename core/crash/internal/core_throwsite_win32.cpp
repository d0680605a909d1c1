#include "core/crash/internal/core_throwsite_win32.h"

#include <cxxabi.h>
#include <unwind.h>

#include <array>
#include <exception>

namespace NS_CORE {
namespace {

constexpr int kFramePointerRegister = 5; // ebp, as this processor's unwind tables count

struct Search {
    ThrowSite site;
    bool isTerminatePassed = false;
};

uintptr_t addressOf(const void* function) {
    return reinterpret_cast<uintptr_t>(function);
}

// Whether the function is one of the runtime library's between the throw and terminate.
bool isOnTheWay(uintptr_t function) {
    const std::array way = {
        addressOf(reinterpret_cast<const void*>(&abi::__cxa_throw)),
        addressOf(reinterpret_cast<const void*>(&abi::__cxa_rethrow)),
        addressOf(reinterpret_cast<const void*>(&abi::__cxa_pure_virtual)),
    };
    for (const uintptr_t one : way) {
        if (one == function) return true;
    }
    return false;
}

_Unwind_Reason_Code visit(_Unwind_Context* context, void* data) {
    auto& search = *static_cast<Search*>(data);
    const uintptr_t instruction = _Unwind_GetIP(context);
    // Looks before the address that it gets: a call that never returns may be the last instruction of its function, and
    // then its return address lies behind that.
    const uintptr_t function = addressOf(_Unwind_FindEnclosingFunction(reinterpret_cast<void*>(instruction)));
    if (!search.isTerminatePassed) {
        search.isTerminatePassed = function == addressOf(reinterpret_cast<const void*>(&std::terminate));
        return _URC_NO_REASON;
    }
    if (isOnTheWay(function)) return _URC_NO_REASON;
    search.site = {instruction, _Unwind_GetCFA(context), _Unwind_GetGR(context, kFramePointerRegister)};
    return _URC_END_OF_STACK;
}

} // namespace

ThrowSite findThrowSite() {
    Search search;
    _Unwind_Backtrace(&visit, &search);
    return search.site;
}

} // namespace NS_CORE
