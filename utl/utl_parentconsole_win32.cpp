#include "utl/utl_parentconsole_win32.h"

#include <windows.h>

#include <io.h>

#include <cstdio>

namespace NS_UTL {
namespace {

// Whether the stream goes to a file, a pipe or the null device: to anything that exists and is not a console.
bool isRedirected(std::FILE* stream) {
    const int fd = ::_fileno(stream); // negative if there is nothing
    const HANDLE handle = fd < 0 ? nullptr : reinterpret_cast<HANDLE>(::_get_osfhandle(fd));
    DWORD mode = 0;
    return ::GetFileType(handle) != FILE_TYPE_UNKNOWN && !::GetConsoleMode(handle, &mode);
}

// Returns whether it redirected the stream. In text mode, because some terminals want a line to end in CR and LF.
bool redirectToConsole(std::FILE* stream) {
    if (isRedirected(stream) || !std::freopen("CONOUT$", "wt", stream)) return false;
    // Buffered, because the bytes of a character have to reach the console together.
    std::setvbuf(stream, nullptr, _IOFBF, BUFSIZ);
    return true;
}

// Under Wine every child is attached to its parent's console already, whatever its subsystem.
bool attach() {
    return ::AttachConsole(ATTACH_PARENT_PROCESS) || ::GetLastError() == ERROR_ACCESS_DENIED;
}

} // namespace

ParentConsole::ParentConsole() {
    if (!attach()) return;
    ::SetConsoleCtrlHandler(/*HandlerRoutine=*/nullptr, /*Add=*/FALSE);
    const bool outputToConsole = redirectToConsole(stdout);
    const bool errorsToConsole = redirectToConsole(stderr);
    if (!outputToConsole && !errorsToConsole) return;
    m_codePageBefore = ::GetConsoleOutputCP();
    ::SetConsoleOutputCP(::GetACP());
}

ParentConsole::~ParentConsole() {
    if (m_codePageBefore != 0 && ::GetConsoleOutputCP() == ::GetACP()) ::SetConsoleOutputCP(m_codePageBefore);
}

} // namespace NS_UTL
