#include <gtest/gtest.h>
#include <windows.h>

#include <future>
#include <thread>

#include "core/stack/core_symbollock.h"
#include "tests/support/planted_code.h"
#include "tests/support/planted_code_platform.h"

namespace test {

void allowWriting(void* code, size_t size) {
    DWORD before = 0;
    EXPECT_TRUE(::VirtualProtect(code, size, PAGE_EXECUTE_READWRITE, &before));
}

void* dumpWriter() {
    return reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("dbghelp.dll"), "MiniDumpWriteDump"));
}

void holdSymbolLibrary() {
    std::promise<void> held;
    std::thread([&held] {
        EXPECT_TRUE(NS_CORE::SymbolTurn::take(/*patienceMs=*/0));
        held.set_value();
        ::Sleep(INFINITE);
    }).detach();
    held.get_future().wait();
}

} // namespace test
