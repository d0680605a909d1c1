#include <windows.h>

#include <string>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/temp_dir.h"

namespace test {

std::string thisProgram() {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(/*hModule=*/nullptr, path.data(), static_cast<DWORD>(path.size())));
    return utf8(path);
}

int runAndWait(const std::string& commandLine) {
    std::wstring wide = fromText(commandLine).wstring();
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(/*lpApplicationName=*/nullptr, wide.data(), /*lpProcessAttributes=*/nullptr,
                          /*lpThreadAttributes=*/nullptr, /*bInheritHandles=*/FALSE, /*dwCreationFlags=*/0,
                          /*lpEnvironment=*/nullptr, /*lpCurrentDirectory=*/nullptr, &startup, &process))
        return -1;
    const NS_CORE::ScopedKernelHandle processOwner(process.hProcess);
    const NS_CORE::ScopedKernelHandle threadOwner(process.hThread);
    ::WaitForSingleObject(process.hProcess, INFINITE);
    DWORD exitCode = 0;
    ::GetExitCodeProcess(process.hProcess, &exitCode);
    return static_cast<int>(exitCode);
}

} // namespace test
