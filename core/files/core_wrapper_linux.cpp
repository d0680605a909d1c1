#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/files/core_wrapper.h"
#include "core/files/core_wrapper_platform.h"

namespace NS_CORE {
namespace wrapper_platform {

bool hasNarrowForm() {
    return false;
}

int open(const Path& path, int openFlags, int permissionMode) {
    return ::open(path.narrow.c_str(), openFlags | O_CLOEXEC, permissionMode);
}

int unlink(const Path& path) {
    return ::unlink(path.narrow.c_str());
}

int makeWritable(const Path& path) {
    return ::chmod(path.narrow.c_str(), S_IRUSR | S_IWUSR);
}

std::FILE* fopen(const Path& path, const Path& mode) {
    // 'e' is close-on-exec.
    return std::fopen(path.narrow.c_str(), (mode.narrow + 'e').c_str());
}

int32_t read(int fd, void* data, int32_t length) {
    return static_cast<int32_t>(::read(fd, data, static_cast<size_t>(length)));
}

int32_t write(int fd, const void* data, int32_t length) {
    return static_cast<int32_t>(::write(fd, data, static_cast<size_t>(length)));
}

} // namespace wrapper_platform

int Wrapper::commit(int fd) {
    return ::fsync(fd);
}

int Wrapper::close(int fd) {
    return ::close(fd);
}

int64_t Wrapper::size(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 ? int64_t{status.st_size} : -1;
}

std::string systemErrorText(uint32_t code) {
    // The GNU form: returns the buffer or a text of the library's own.
    char buffer[256] = {};
    return ::strerror_r(static_cast<int>(code), buffer, sizeof buffer);
}

uint32_t lastSystemError() {
    return static_cast<uint32_t>(errno);
}

} // namespace NS_CORE
