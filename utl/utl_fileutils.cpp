#include "utl/utl_fileutils.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"

namespace NS_UTL {

using NS_CORE::ScopedFd;
using NS_CORE::Wrapper;

namespace {

constexpr int32_t kCopyBufferSize = 32768;
constexpr int kCopyMode = S_IRUSR | S_IWUSR;
constexpr const char* kCopyFunction = "UTL::FileUtils::copy";

bool writeBlock(int fd, const char* data, int32_t length, const std::string& destination) {
    const int32_t written = Wrapper::write(fd, data, length);
    if (written == length) return true;
    const int error = errno;
    if (written < 0)
        MLOG(Warn, kCopyFunction, "error writing to %s (%d:%s)", destination, error, std::strerror(error));
    else
        MLOG(Warn, kCopyFunction, "only wrote %d of %d to %s", written, length, destination);
    return false;
}

// Closes both.
bool copyContent(ScopedFd from, ScopedFd to, const std::string& source, const std::string& destination) {
    std::array<char, kCopyBufferSize> buffer;
    int32_t length = 0;
    do {
        length = Wrapper::read(from.get(), buffer.data(), kCopyBufferSize);
        if (length < 0) {
            const int error = errno;
            MLOG(Warn, kCopyFunction, "error reading from %s (%d:%s)", source, error, std::strerror(error));
            return false;
        }
        if (length > 0 && !writeBlock(to.get(), buffer.data(), length, destination)) return false;
        // A short read counts as the end of the file, which saves one read for every file whose size is not a
        // multiple of the buffer's.
    } while (length == kCopyBufferSize);
    return true;
}

} // namespace

bool FileUtils::copy(const std::string& source, const std::string& destination) {
    ScopedFd from(Wrapper::open(source, O_RDONLY, kCopyMode));
    if (!from) {
        MLOG(Warn, kCopyFunction, "failed opening '%s' for reading", source);
        return false;
    }
    ScopedFd to(Wrapper::open(destination, O_WRONLY | O_CREAT | O_TRUNC, kCopyMode));
    if (!to) {
        MLOG(Warn, kCopyFunction, "failed opening '%s' for writing", destination);
        return false;
    }
    if (copyContent(std::move(from), std::move(to), source, destination)) return true;
    // Windows does not remove a file that is open; it is closed by now.
    Wrapper::unlink(destination);
    return false;
}

} // namespace NS_UTL
