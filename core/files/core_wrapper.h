#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace NS_CORE {

// The runtime library's file calls for paths in UTF-8, and the texts of the system's errors.
//
// A path is converted at this boundary and nowhere else. One that is not UTF-8 fails a CHECKF whose message is the
// path; the call then ends with its failure result and errno EILSEQ. Apart from that nothing here logs,
// unless stated. Every call may be made from any thread; it blocks as long as the system's own call does.
// No call is repeated when a signal interrupts it (EINTR); this system's handlers restart interrupted calls.
class Wrapper {
public:
    // The calling thread's choice, true at its start: whether `open` and `unlink` use the wide form of the system's
    // call. With the narrow form a path goes to the system as it is, in the process's own code page. Linux has one
    // form, and the choice changes nothing there.
    static bool useWidePaths();
    static void setUseWidePaths(bool useWide);

    // Opens for binary access and lets others read, write and share the file meanwhile.
    // openFlags       O_RDONLY, O_CREAT and so on, as <fcntl.h> has them on the platform.
    // permissionMode  the rights of a file that is created: S_IRUSR, S_IWUSR.
    // Returns a descriptor, which the caller closes (ScopedFd, core_scopedfd.h) and which programs started
    // by ProcessUtils do not inherit; or -1 and errno.
    [[nodiscard]] static int open(const std::string& path, int openFlags, int permissionMode);

    // Removes a file, a read-only one too: if the first try fails with EACCES, sets the file's mode to 0600 and tries
    // once more. A mode that cannot be set is logged at NORM. Returns 0 or -1. If the first try failed, errno is that
    // try's, even when the second one succeeds.
    static int unlink(const std::string& path);

    // Always the wide form. Returns a stream, which the caller closes (ScopedStream), or null and errno. A mode that is
    // not UTF-8 fails a CHECKF as well.
    [[nodiscard]] static std::FILE* fopen(const std::string& path, const std::string& mode);

    // The descriptor calls under one name on both platforms. They return what the runtime returns: the count of bytes
    // (0 at the end of the file), 0, or -1 and errno. A negative length is refused with EINVAL.
    [[nodiscard]] static int32_t read(int fd, void* data, int32_t length);
    [[nodiscard]] static int32_t write(int fd, const void* data, int32_t length);
    // Returns when what was written is on the disk.
    static int commit(int fd);
    static int close(int fd);
    // In bytes, or -1 and errno.
    [[nodiscard]] static int64_t size(int fd);
};

struct StreamCloser {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
};
// Owns a stream, and closes it.
using ScopedStream = std::unique_ptr<std::FILE, StreamCloser>;

// The system's text for an error code (GetLastError's on Windows, errno on Linux), exactly as the system words it:
// on Windows with the line break at its end. If the system has none, the text is empty on
// Windows and names the number on Linux.
std::string systemErrorText(uint32_t code);

// The calling thread's last error: GetLastError on Windows, errno on Linux.
uint32_t lastSystemError();

// Logs "prefix: text of the last error" at WARN. Call it right after the call that failed.
void logLastError(const std::string& prefix);

} // namespace NS_CORE
