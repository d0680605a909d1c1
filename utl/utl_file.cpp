#include "utl/utl_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"

namespace NS_UTL {

using NS_CORE::Wrapper;

namespace {

int accessFlags(uint32_t flags) {
    if ((flags & File::Write) == 0) return O_RDONLY;
    return (flags & File::Read) != 0 ? O_RDWR : O_WRONLY;
}

int runtimeOpenFlags(uint32_t flags) {
    int openFlags = accessFlags(flags);
    if ((flags & File::Create) != 0) openFlags |= O_CREAT;
    if ((flags & File::Append) != 0) openFlags |= O_APPEND;
    return openFlags;
}

} // namespace

bool File::openFile(const std::string& path, uint32_t flags, uint32_t mode) {
    m_ownership = Descriptor::Owned;
    if (!CHECKF(!isOpen(), "can't open '%s', '%s' already open", path, m_path)) return false;

    NS_CORE::ScopedFd fd(Wrapper::open(path, runtimeOpenFlags(flags), static_cast<int>(mode)));
    if (!fd) {
        if (m_reports == Reports::Warn)
            MLOG(Warn, "UTL::File::openFile", "File:openFile(%s,%d,%d) - failed opening", path, flags, mode);
        return false;
    }
    m_path = path;
    m_fd = std::move(fd);
    m_flags = flags;
    m_mode = mode;
    return true;
}

int32_t File::writeFrom(const void* data, int32_t length) {
    if (!CHECKF(isOpen(), "")) return -1;
    if (!CHECKF((m_flags & Write) != 0, "")) return -1;

    const int32_t written = Wrapper::write(m_fd.get(), data, length);
    if (written < 0) {
        const int error = errno;
        if (m_reports == Reports::Warn)
            MLOG(Warn, "UTL::File::writeFrom", "File(%s):writeFrom - failed writing %d bytes with error %d:%s", m_path,
                 length, error, std::strerror(error));
        return -1;
    }
    m_bytesWritten += static_cast<uint32_t>(written);
    if ((m_flags & CommitOnWrite) != 0) Wrapper::commit(m_fd.get());
    return written;
}

int64_t File::size() const {
    if (!CHECKF(isOpen(), "")) return -1;
    return Wrapper::size(m_fd.get());
}

void File::close() {
    if (!isOpen()) return;
    if ((m_flags & CommitOnClose) != 0) Wrapper::commit(m_fd.get());
    if (m_ownership == Descriptor::Borrowed) static_cast<void>(m_fd.release());
    m_fd.reset();
    m_flags = 0;
    m_mode = 0;
    m_bytesWritten = 0;
    m_path.clear();
}

} // namespace NS_UTL
