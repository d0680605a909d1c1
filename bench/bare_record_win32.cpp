#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>

#include "bench/bare_record.h"

namespace bench {

// By the runtime library's descriptors, as the service does it.
void writeBareRecord(const char* path, std::string_view line) {
    int file = -1;
    ::_sopen_s(&file, path, _O_RDWR | _O_APPEND | _O_CREAT | _O_BINARY, _SH_DENYNO, _S_IREAD | _S_IWRITE);
    ::_write(file, line.data(), static_cast<unsigned>(line.size()));
    struct _stat64 status;
    ::_fstat64(file, &status);
    ::_commit(file);
    ::_close(file);
}

} // namespace bench
