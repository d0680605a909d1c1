#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/service/process_gauge.h"
#include "tests/support/open_handles_win32.h"

namespace test {
namespace {

int64_t ownThreads() {
    const NS_CORE::ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    int64_t count = 0;
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more; more = ::Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
    }
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
    return {openHandles(), ownThreads(), privateBytes()};
}

} // namespace test
