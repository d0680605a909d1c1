#include "core/crash/internal/core_crashwatch_win32.h"

#include <windows.h>
// psapi.h needs windows.h before it.
#include <psapi.h>

#include <array>
#include <cstddef>
#include <cwchar>
#include <string_view>

#include "core/crash/internal/core_crashreport.h"
#include "core/memory/core_scopedhandle_win32.h"

namespace NS_CORE {
namespace {

// The watcher's command line: a word, and the members of Task, each as kDigits hexadecimal digits.
constexpr wchar_t kCommandLine[] = L"quorkeri-crash-watch 00000000 00000000 00000000 00000000";
constexpr std::wstring_view kWord = L"quorkeri-crash-watch ";
static_assert(std::wstring_view(kCommandLine).starts_with(kWord));
constexpr size_t kDigits = 8;

// How long end() waits until the watcher has ended. A quiet machine needs some milliseconds.
constexpr DWORD kEndLimitMs = 5000;

struct Task {
    HANDLE process;
    HANDLE dump;
    DWORD patienceMs;
    UINT exitCode;
};

// Returns whether the command line sets this process a task. The word from elsewhere cannot name a handle of another
// process, because a new process has only the handles that it inherits.
bool findTask(Task& task) {
    wchar_t* at = std::wcsstr(::GetCommandLineW(), kWord.data());
    if (at == nullptr) return false;
    at += kWord.size();
    const auto number = [&at] { return DWORD{std::wcstoul(at, &at, 16)}; };
    const auto handle = [&number] { return reinterpret_cast<HANDLE>(uintptr_t{number()}); };
    task.process = handle();
    task.dump = handle();
    task.patienceMs = number();
    task.exitCode = number();
    const DWORD id = ::GetProcessId(task.process);
    return id != 0 && id != ::GetCurrentProcessId();
}

// Changes with what the process does: Windows counts its page faults, Wine knows its memory's size alone.
uint64_t activityOf(HANDLE process) {
    PROCESS_MEMORY_COUNTERS memory{};
    ::K32GetProcessMemoryInfo(process, &memory, sizeof(memory));
    return uint64_t{memory.PageFaultCount} + memory.WorkingSetSize;
}

// The watcher's whole life, after the stack protector's guard and before any other initialiser.
[[gnu::constructor(102)]] void watchIfAsked() {
    Task task{};
    if (!findTask(task)) return;
    Standstill standstill;
    while (::WaitForSingleObject(task.process, task.patienceMs / Standstill::kLooks) == WAIT_TIMEOUT) {
        if (standstill.isReached(sizeOfFile(task.dump) + activityOf(task.process)))
            ::TerminateProcess(task.process, task.exitCode);
    }
    ::TerminateProcess(::GetCurrentProcess(), 0);
}

// With the full path, however long it is, and zeros behind it.
std::wstring pathOfProgram() {
    std::wstring path(MAX_PATH, L'\0');
    // As long as the buffer: the path was cut.
    while (::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())) == path.size())
        path.resize(2 * path.size());
    return path;
}

void putNumber(wchar_t* to, uintptr_t number) {
    for (size_t digit = kDigits; digit-- > 0; number >>= 4) to[digit] = L"0123456789abcdef"[number & 15];
}

// A handle to the same object that a child inherits, with these rights only. Null if there is none.
ScopedKernelHandle inheritable(HANDLE handle, DWORD rights) {
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, rights, /*bInheritHandle=*/TRUE,
                      /*dwOptions=*/0);
    return ScopedKernelHandle(copy);
}

} // namespace

uint64_t sizeOfFile(HANDLE file) {
    LARGE_INTEGER size{};
    return ::GetFileSizeEx(file, &size) != FALSE ? static_cast<uint64_t>(size.QuadPart) : 0;
}

void CrashWatch::prepare() {
    m_program = pathOfProgram();
}

void CrashWatch::start(HANDLE dump, UINT exitCode) {
    const ScopedKernelHandle process = inheritable(
        ::GetCurrentProcess(), PROCESS_TERMINATE | PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_VM_READ | SYNCHRONIZE);
    const ScopedKernelHandle file =
        dump == INVALID_HANDLE_VALUE ? ScopedKernelHandle() : inheritable(dump, FILE_READ_ATTRIBUTES);
    if (!process) return;
    std::array handles = {process.get(), file.get()};
    // The list of what the watcher inherits has no memory but this, so nothing has to be deleted.
    alignas(std::max_align_t) std::byte bytes[256];
    SIZE_T size = sizeof(bytes);
    const auto list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(bytes);
    if (::InitializeProcThreadAttributeList(list, /*dwAttributeCount=*/1, /*dwFlags=*/0, &size) == FALSE ||
        ::UpdateProcThreadAttribute(list, /*dwFlags=*/0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                    static_cast<void*>(handles.data()),
                                    file ? sizeof(handles) : sizeof(handles.front()), /*lpPreviousValue=*/nullptr,
                                    /*lpReturnSize=*/nullptr) == FALSE)
        return;
    std::array commandLine = std::to_array(kCommandLine);
    wchar_t* to = commandLine.data() + kWord.size();
    for (const uintptr_t number : {reinterpret_cast<uintptr_t>(process.get()), reinterpret_cast<uintptr_t>(file.get()),
                                   uintptr_t{g_crashPatienceMs}, uintptr_t{exitCode}}) {
        putNumber(to, number);
        to += kDigits + 1;
    }
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof(startup);
    startup.StartupInfo.dwFlags = STARTF_FORCEOFFFEEDBACK; // leave the pointer on the screen as it is
    startup.lpAttributeList = list;
    PROCESS_INFORMATION started{};
    if (::CreateProcessW(m_program.c_str(), commandLine.data(), /*lpProcessAttributes=*/nullptr,
                         /*lpThreadAttributes=*/nullptr, /*bInheritHandles=*/TRUE,
                         DETACHED_PROCESS | EXTENDED_STARTUPINFO_PRESENT, /*lpEnvironment=*/nullptr,
                         /*lpCurrentDirectory=*/nullptr, &startup.StartupInfo, &started) == FALSE)
        return;
    const ScopedKernelHandle thread(started.hThread);
    m_watcher = started.hProcess;
}

void CrashWatch::end() {
    ::TerminateProcess(m_watcher, 0);
    ::WaitForSingleObject(m_watcher, kEndLimitMs);
}

} // namespace NS_CORE
