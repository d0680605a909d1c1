#include <elfutils/libdwfl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>

#include "core/stack/core_stacktrace.h"
#include "tests/support/planted_code.h"

namespace test {

void overwrite(void* function, std::string_view code) {
    const auto page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    const uintptr_t first = reinterpret_cast<uintptr_t>(function) / page * page;
    const size_t length = reinterpret_cast<uintptr_t>(function) + code.size() - first;
    EXPECT_EQ(::mprotect(reinterpret_cast<void*>(first), length, PROT_READ | PROT_WRITE | PROT_EXEC), 0);
    std::memcpy(function, code.data(), code.size());
}

std::string jumpTo(void* function) {
    std::string code("\x48\xb8        \xff\xe0"); // mov rax, ...; jmp rax
    std::memcpy(code.data() + 2, &function, sizeof(function));
    return code;
}

void* symbolReader() {
    return reinterpret_cast<void*>(&dwfl_addrmodule);
}

void holdSymbolLibrary() {
    // Under the library's lock, which nobody else gets then.
    overwrite(symbolReader(), kHang);
    static std::atomic<bool> begins;
    std::thread([] {
        begins = true;
        NS_CORE::StackTrace().toText();
    }).detach();
    while (!begins) std::this_thread::yield();
    // Where it hangs it cannot give a sign; the test passes whether it is there already or not.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

} // namespace test
