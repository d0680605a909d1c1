#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#include <windows.h>

#include "core/files/core_wrapper.h"
#include "core/files/core_wrapper_platform.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/text/core_utf8_win32.h"

namespace NS_CORE {
namespace wrapper_platform {

bool hasNarrowForm() {
    return true;
}

int open(const Path& path, int openFlags, int permissionMode) {
    int fd = -1;
    const int flags = openFlags | _O_BINARY;
    const errno_t error = path.useWide
                              ? ::_wsopen_s(&fd, systemWide(path.wide).c_str(), flags, _SH_DENYNO, permissionMode)
                              : ::_sopen_s(&fd, path.narrow.c_str(), flags, _SH_DENYNO, permissionMode);
    return error == 0 ? fd : -1;
}

int unlink(const Path& path) {
    return path.useWide ? ::_wunlink(systemWide(path.wide).c_str()) : ::_unlink(path.narrow.c_str());
}

int makeWritable(const Path& path) {
    constexpr int kMode = _S_IREAD | _S_IWRITE;
    return path.useWide ? ::_wchmod(systemWide(path.wide).c_str(), kMode) : ::_chmod(path.narrow.c_str(), kMode);
}

std::FILE* fopen(const Path& path, const Path& mode) {
    return ::_wfopen(systemWide(path.wide).c_str(), systemWide(mode.wide).c_str());
}

int32_t read(int fd, void* data, int32_t length) {
    return ::_read(fd, data, static_cast<unsigned>(length));
}

int32_t write(int fd, const void* data, int32_t length) {
    return ::_write(fd, data, static_cast<unsigned>(length));
}

} // namespace wrapper_platform

int Wrapper::commit(int fd) {
    return ::_commit(fd);
}

int Wrapper::close(int fd) {
    return ::_close(fd);
}

int64_t Wrapper::size(int fd) {
    struct _stat64 status;
    return ::_fstat64(fd, &status) == 0 ? int64_t{status.st_size} : -1;
}

std::string systemErrorText(uint32_t code) {
    // The system allocates the text and stores its address in `text`, which is why a char** is passed as a char*. A
    // text that needs arguments cannot be fetched this way and comes out empty.
    char* text = nullptr;
    ::FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, /*lpSource=*/nullptr, code,
                     MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text), /*nSize=*/0,
                     /*Arguments=*/nullptr);
    const ScopedLocalMemory<char> owner(text);
    return text ? text : "";
}

uint32_t lastSystemError() {
    return ::GetLastError();
}

} // namespace NS_CORE
