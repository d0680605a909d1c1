#include "utl/utl_filelogger.h"

#include <string_view>
#include <utility>

#include "core/files/core_wrapper.h"
#include "core/text/core_checkf.h"
#include "core/time/core_time.h"
#include "utl/utl_file.h"
#include "utl/utl_fileutils.h"

namespace NS_UTL {

using NS_CORE::formatString;

namespace {

constexpr uint32_t kOneOldFile = 1;

} // namespace

FileLogger::FileLogger(std::string directory, std::string name, uint32_t maxSize, uint32_t keep)
    : m_directory(std::move(directory)), m_name(std::move(name)), m_maxSize(maxSize), m_keep(keep) {}

void FileLogger::log(uint32_t /*level*/, uint32_t /*threadNumber*/, const NS_CORE::LevelEntry& /*levelEntry*/,
                     uint8_t /*implementationBits*/, const char* text, size_t textLength) {
    File file;
    if (!CHECKF(file.openFile(path()), "")) return;
    const std::tm now = NS_CORE::localTimeOf(NS_CORE::systemNow().seconds);
    const std::string line = formatString("%s %s\n", stamp(now), std::string_view(text, textLength));
    // The file has reported a failed write. The size decides about the rotation in any case.
    file.writeFrom(line.data(), static_cast<int32_t>(line.size()));
    if (file.size() <= int64_t{m_maxSize}) return;
    // Windows does not rename a file that is open.
    file.close();
    rotate();
}

std::string FileLogger::stamp(const std::tm& localTime) {
    char text[30];
    return {text, std::strftime(text, sizeof(text), "%Y-%m-%d %d %H:%M:%S", &localTime)};
}

std::string FileLogger::path() const {
    return m_directory + '/' + m_name;
}

std::string FileLogger::numbered(uint64_t number) const {
    return formatString("%s/%s.%d", m_directory, m_name, number);
}

void FileLogger::rotate() const {
    if (m_keep != kOneOldFile) {
        rotateNumbered();
        return;
    }
    const std::string current = path();
    const std::string old = current + ".old";
    CHECKF(FileUtils::renameFile(current, old), "failed renaming %s to %s", current, old);
}

void FileLogger::rotateNumbered() const {
    const uint64_t pushedOut = uint64_t{m_keep} + 1;
    for (uint64_t above = pushedOut; above > 0; --above) {
        const std::string from = numbered(above - 1);
        const std::string to = numbered(above);
        CHECKF(FileUtils::renameFile(from, to), "%s=>%s", from, to);
    }
    const std::string current = path();
    CHECKF(FileUtils::renameFile(current, numbered(0)), "%s", current);
    NS_CORE::Wrapper::unlink(numbered(pushedOut));
}

} // namespace NS_UTL
