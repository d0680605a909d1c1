#include <gtest/gtest.h>
#include <windows.h>

#include "core/memory/core_scopedhandle_win32.h"
#include "core/memory/core_threadword.h"

namespace {

constinit NS_CORE::ThreadWord g_word;

struct Events {
    // A thread's start takes the heap's lock, too.
    NS_CORE::ScopedKernelHandle hasStarted{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    NS_CORE::ScopedKernelHandle heapIsLocked{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    NS_CORE::ScopedKernelHandle isUsed{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
};

DWORD WINAPI useTheWord(void* argument) {
    const auto* events = static_cast<const Events*>(argument);
    ::SetEvent(events->hasStarted.get());
    ::WaitForSingleObject(events->heapIsLocked.get(), INFINITE);
    g_word.set(g_word.get() + 1);
    ::SetEvent(events->isUsed.get());
    return static_cast<DWORD>(g_word.get());
}

TEST(ThreadWord, NeedsNoHeapWhenAThreadFirstUsesIt) {
    Events events;
    const NS_CORE::ScopedKernelHandle thread(::CreateThread(nullptr, 0, &useTheWord, &events, 0, nullptr));
    ::WaitForSingleObject(events.hasStarted.get(), INFINITE);
    ::HeapLock(::GetProcessHeap());
    ::SetEvent(events.heapIsLocked.get());
    const DWORD waited = ::WaitForSingleObject(events.isUsed.get(), 20000);
    ::HeapUnlock(::GetProcessHeap());
    EXPECT_EQ(waited, WAIT_OBJECT_0);
    ::WaitForSingleObject(thread.get(), INFINITE);
    DWORD code = 0;
    EXPECT_TRUE(::GetExitCodeThread(thread.get(), &code));
    EXPECT_EQ(code, 1U);
}

TEST(ThreadWord, KeepsTheLastError) {
    ::SetLastError(0x1234);
    g_word.set(g_word.get() + 1);
    EXPECT_EQ(::GetLastError(), 0x1234U);
}

} // namespace
