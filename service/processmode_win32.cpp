#include "service/processmode_win32.h"

#include <windows.h>

#include <bit>
#include <cstdlib>

namespace service {

void setProcessMode() {
    using SetDefaultDllDirectories = BOOL(WINAPI*)(DWORD flags);
    constexpr DWORD kSystemDirectory = 0x800; // LOAD_LIBRARY_SEARCH_SYSTEM32
    const auto setDirectories = std::bit_cast<SetDefaultDllDirectories>(
        ::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "SetDefaultDllDirectories"));
    if (setDirectories) setDirectories(kSystemDirectory);
    // Not SEM_NOGPFAULTERRORBOX: it turns Windows Error Reporting off, also for the companion, and with it the dumps
    // that an administrator asked for. Error Reporting itself shows no box in a session without a desktop.
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    ::_set_error_mode(_OUT_TO_STDERR);
}

} // namespace service
