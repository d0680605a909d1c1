#include <windows.h>

#include <string>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "utl/utl_processutils_platform.h"

namespace NS_UTL::processutils_platform {
namespace {

// The members are destroyed in reverse order: the process's handle is closed before the thread's.
struct Child {
    NS_CORE::ScopedKernelHandle thread;
    NS_CORE::ScopedKernelHandle process;
};

// ERROR_SUCCESS, or the system's code.
uint32_t launch(const char* commandLine, Child& child) {
    STARTUPINFOA startup = {}; // its size too is left 0
    PROCESS_INFORMATION information = {};
    // The system may write into the command line.
    std::string writable = commandLine;
    if (!::CreateProcessA(/*lpApplicationName=*/nullptr, writable.data(), /*lpProcessAttributes=*/nullptr,
                          /*lpThreadAttributes=*/nullptr, /*bInheritHandles=*/FALSE, DETACHED_PROCESS,
                          /*lpEnvironment=*/nullptr, /*lpCurrentDirectory=*/nullptr, &startup, &information))
        return NS_CORE::lastSystemError();
    child.thread.reset(information.hThread);
    child.process.reset(information.hProcess);
    return ERROR_SUCCESS;
}

} // namespace

ProcessUtils::Result startAndWait(const char* commandLine, unsigned long& exitCode, uint32_t& systemError) {
    Child child;
    systemError = launch(commandLine, child);
    if (systemError != ERROR_SUCCESS) return ProcessUtils::Result::StartFailed;
    if (::WaitForSingleObject(child.process.get(), INFINITE) == WAIT_TIMEOUT) return ProcessUtils::Result::StillRunning;
    DWORD code = 0;
    if (!::GetExitCodeProcess(child.process.get(), &code)) return ProcessUtils::Result::NoExitCode;
    exitCode = code;
    return ProcessUtils::Result::Finished;
}

} // namespace NS_UTL::processutils_platform
