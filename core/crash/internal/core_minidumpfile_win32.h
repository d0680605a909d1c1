#pragma once

#include <windows.h>

namespace NS_CORE {

// Returns what is wrong with a minidump whose writer reported success, as a system error code, or ERROR_SUCCESS. Some
// writers do not notice when the disk is full; then the file does not hold all that its own directory lists.
// file  open for reading; it stays the caller's.
DWORD errorOfWrittenDump(HANDLE file);

} // namespace NS_CORE
