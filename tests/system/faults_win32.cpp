#include <windows.h>

#include <tlhelp32.h>

#include <cstdio>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/system/service_manager_win32.h"

// What installed_test.py needs of Windows: this program's children do it and print what came of it.
namespace test {
namespace {

using NS_CORE::ScopedFileHandle;
using NS_CORE::ScopedKernelHandle;

// A process's first thread is the one that was created first.
ScopedKernelHandle openMainThread(DWORD processId) {
    const ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    ScopedKernelHandle first;
    ULONGLONG firstTime = ~0ULL;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more; more = ::Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID != processId) continue;
        ScopedKernelHandle thread(::OpenThread(THREAD_ALL_ACCESS, /*bInheritHandle=*/FALSE, entry.th32ThreadID));
        FILETIME created{};
        FILETIME unused{};
        ::GetThreadTimes(thread.get(), &created, &unused, &unused, &unused);
        const ULONGLONG time = (ULONGLONG{created.dwHighDateTime} << 32) + created.dwLowDateTime;
        if (time >= firstTime) continue;
        firstTime = time;
        first = std::move(thread);
    }
    return first;
}

// Makes the thread continue at the address 0, as if it had called that from where it is. If it waits in the system, it
// continues there when the wait ends.
void callNull(HANDLE process, HANDLE thread) {
    if (::SuspendThread(thread) == ~DWORD{0}) failWithLastError("SuspendThread");
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    if (!::GetThreadContext(thread, &context)) failWithLastError("GetThreadContext");
    const DWORD from = context.Eip;
    context.Esp -= static_cast<DWORD>(sizeof(from));
    context.Eip = 0;
    if (!::WriteProcessMemory(process, reinterpret_cast<void*>(uintptr_t{context.Esp}), &from, sizeof(from), nullptr))
        failWithLastError("WriteProcessMemory");
    if (!::SetThreadContext(thread, &context)) failWithLastError("SetThreadContext");
    ::ResumeThread(thread);
}

// Makes the service's main thread call the address 0, says so, and prints the exit code when the process has ended.
const ChildProgram g_crashMainThread("crash-main-thread", [](const std::vector<std::string>& /*arguments*/) {
    const DWORD processId = statusOf(openInstalledService()).dwProcessId;
    const ScopedKernelHandle process(::OpenProcess(PROCESS_ALL_ACCESS, /*bInheritHandle=*/FALSE, processId));
    if (!process) failWithLastError("OpenProcess");
    const ScopedKernelHandle thread = openMainThread(processId);
    callNull(process.get(), thread.get());
    std::puts("called");
    std::fflush(stdout);
    constexpr DWORD kLimitMs = 120'000;
    if (::WaitForSingleObject(process.get(), kLimitMs) != WAIT_OBJECT_0) {
        std::puts("it runs on");
        return 1;
    }
    DWORD code = 0;
    ::GetExitCodeProcess(process.get(), &code);
    std::printf("%lu\n", code);
    return 0;
});

// The service's commands, as its manager takes them: start, or a control's number. Prints the last error, 0 for none.
const ChildProgram g_serviceCommand("service-command", [](const std::vector<std::string>& arguments) {
    const ServiceHandle service = openInstalledService();
    SERVICE_STATUS status{};
    ::SetLastError(ERROR_SUCCESS);
    if (arguments.at(0) == "start")
        ::StartServiceW(service.get(), 0, nullptr);
    else
        ::ControlService(service.get(), static_cast<DWORD>(std::stoul(arguments.at(0))), &status);
    std::printf("%lu\n", ::GetLastError());
    return 0;
});

const ChildProgram g_removeLeftService("remove-left-service", [](const std::vector<std::string>& /*arguments*/) {
    removeLeftService();
    return 0;
});

} // namespace
} // namespace test
