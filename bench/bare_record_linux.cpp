#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench/bare_record.h"

namespace bench {

void writeBareRecord(const char* path, std::string_view line) {
    const int file = ::open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    [[maybe_unused]] const ssize_t written = ::write(file, line.data(), line.size());
    struct stat status{};
    ::fstat(file, &status);
    ::fsync(file);
    ::close(file);
}

} // namespace bench
