#pragma once

#include <cstdint>
#include <string>

#include "core/files/core_scopedfd.h"

namespace NS_UTL {

// A file that is open for binary access through the runtime library. One thread at a time per object.
//
// An object is closed (descriptor() is -1, path() is empty) until openFile succeeds, and again after close. Calls that
// need an open file fail a CHECKF with an empty message on a closed one. Each call blocks as long as the system's own
// call does and is made once: a short write is not continued, an interrupted call is not repeated.
class File {
public:
    // How a file is opened and kept.
    enum Flag : uint32_t {
        Read = 1 << 0,
        Write = 1 << 1,
        Create = 1 << 2,        // create a missing file
        CommitOnClose = 1 << 5, // wait at close until all is on the disk
        CommitOnWrite = 1 << 6, // wait at each write until it is on the disk
        Append = 1 << 7,        // each write goes to the end
    };
    static constexpr uint32_t kLogFileFlags = Read | Write | Create | CommitOnClose | Append;
    static constexpr uint32_t kReadWriteMode = 0x180; // S_IRUSR | S_IWUSR, on either platform

    enum class Reports { Silent, Warn };
    enum class Descriptor { Borrowed, Owned };

    // reports  whether a failed open or write is logged at WARN.
    explicit File(Reports reports = Reports::Warn) : m_reports(reports) {}
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // The object owns the descriptor afterwards. Returns false and leaves the object as it was if the file cannot be
    // opened. On an open object it fails a CHECKF that names both paths, and returns false.
    // mode  the rights of a file that is created.
    [[nodiscard]] bool openFile(const std::string& path, uint32_t flags = kLogFileFlags,
                                uint32_t mode = kReadWriteMode);

    // Returns the count of bytes written, which may be less than `length`, or -1. On a file opened without Write it
    // fails a CHECKF with an empty message.
    int32_t writeFrom(const void* data, int32_t length);

    // The file's current size in bytes, whoever wrote to it; -1 when it is closed or the system does not say.
    [[nodiscard]] int64_t size() const;

    // Does nothing on a closed file.
    void close();

    // Borrowed leaves the descriptor open at close, for a caller that has taken it from descriptor(). It applies until
    // the next call of openFile, even one that fails.
    void setDescriptor(Descriptor descriptor) { m_ownership = descriptor; }

    const std::string& path() const { return m_path; }
    int descriptor() const { return m_fd.get(); }
    uint32_t flags() const { return m_flags; }
    uint32_t mode() const { return m_mode; }
    // Bytes written through this object since it was opened.
    uint64_t bytesWritten() const { return m_bytesWritten; }

private:
    bool isOpen() const { return static_cast<bool>(m_fd); }

    std::string m_path;
    NS_CORE::ScopedFd m_fd;
    uint32_t m_flags = 0;
    uint32_t m_mode = 0;
    uint64_t m_bytesWritten = 0;
    Reports m_reports;
    Descriptor m_ownership = Descriptor::Owned;
};

} // namespace NS_UTL
