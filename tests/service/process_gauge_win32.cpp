#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include "tests/service/process_gauge.h"

namespace test {
namespace {

int64_t lowestFreeHandle() {
    const HANDLE event = ::CreateEventA(nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, nullptr);
    const auto value = reinterpret_cast<intptr_t>(event);
    ::CloseHandle(event);
    return value;
}

int64_t ownThreads() {
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    int64_t count = 0;
    for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
    }
    ::CloseHandle(snapshot);
    return count;
}

int64_t privateBytes() {
    PROCESS_MEMORY_COUNTERS_EX counters = {};
    ::K32GetProcessMemoryInfo(::GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                              sizeof counters);
    return static_cast<int64_t>(counters.PrivateUsage);
}

} // namespace

ProcessGauge ProcessGauge::read() {
    return {lowestFreeHandle(), ownThreads(), privateBytes()};
}

} // namespace test
