#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <vector>

#include "tests/service/process_gauge.h"

namespace test {
namespace {

// One row of the system's table of all open handles, and the table:
// SYSTEM_HANDLE_TABLE_ENTRY_INFO_EX and its like.
struct HandleRow {
  void *object;
  ULONG_PTR process;
  ULONG_PTR handle;
  ULONG access;
  USHORT trace;
  USHORT type;
  ULONG attributes;
  ULONG reserved;
};
struct HandleTable {
  ULONG_PTR count;
  ULONG_PTR reserved;
  HandleRow rows[1];
};

// Counted one by one, because under Wine GetProcessHandleCount always returns
// 0.
int64_t ownHandles() {
  constexpr ULONG kExtendedHandleInformation = 64;
  constexpr auto kLengthMismatch = static_cast<LONG>(0xC0000004);
  using Query = LONG(WINAPI *)(ULONG, void *, ULONG, ULONG *);
  static const auto querySystem =
      reinterpret_cast<Query>(reinterpret_cast<void *>(::GetProcAddress(
          ::GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
  std::vector<ULONG_PTR> memory(1 << 16);
  const auto query = [&memory] {
    return querySystem(kExtendedHandleInformation, memory.data(),
                       static_cast<ULONG>(memory.size() * sizeof(memory[0])),
                       nullptr);
  };
  LONG status = query();
  for (; status == kLengthMismatch; status = query())
    memory.resize(2 * memory.size());
  if (status != 0)
    return -1;
  const auto *const table =
      reinterpret_cast<const HandleTable *>(memory.data());
  return std::count_if(table->rows, table->rows + table->count,
                       [](const HandleRow &row) {
                         return row.process == ::GetCurrentProcessId();
                       });
}

int64_t ownThreads() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof entry;
  int64_t count = 0;
  for (BOOL more = ::Thread32First(snapshot, &entry); more;
       more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId())
      ++count;
  }
  ::CloseHandle(snapshot);
  return count;
}

int64_t privateBytes() {
  PROCESS_MEMORY_COUNTERS_EX counters = {};
  ::K32GetProcessMemoryInfo(
      ::GetCurrentProcess(),
      reinterpret_cast<PROCESS_MEMORY_COUNTERS *>(&counters), sizeof counters);
  return static_cast<int64_t>(counters.PrivateUsage);
}

} // namespace

ProcessGauge ProcessGauge::read() {
  return {ownHandles(), ownThreads(), privateBytes()};
}

} // namespace test
