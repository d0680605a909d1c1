#include "service/processmode_win32.h"

#include <windows.h>

#include <cstdlib>

namespace service {

void setProcessMode() {
    using SetDefaultDllDirectories = BOOL(WINAPI*)(DWORD flags);
    constexpr DWORD kSystemDirectory = 0x800; // LOAD_LIBRARY_SEARCH_SYSTEM32
    const FARPROC found = ::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "SetDefaultDllDirectories");
    const auto setDirectories = reinterpret_cast<SetDefaultDllDirectories>(reinterpret_cast<void*>(found));
    if (setDirectories) setDirectories(kSystemDirectory);
    // Not SEM_NOGPFAULTERRORBOX: it turns Windows Error Reporting off, also for the companion, and with it the dumps
    // that an administrator asked for. Error Reporting itself shows no box in a session without a desktop.
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    ::_set_error_mode(_OUT_TO_STDERR);
}

} // namespace service
