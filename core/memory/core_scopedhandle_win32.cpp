#include "core/memory/core_scopedhandle_win32.h"

#include <windows.h>

namespace NS_CORE {

void KernelHandleTraits::close(Value handle) {
    ::CloseHandle(handle);
}

void FileHandleTraits::close(Value handle) {
    ::CloseHandle(handle);
}

} // namespace NS_CORE
