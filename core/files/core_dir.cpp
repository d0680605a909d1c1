#include "core/files/core_dir.h"

#include "core/files/core_dir_platform.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "core/text/core_pathseparator.h"

namespace NS_CORE {
namespace {

constexpr size_t kModuleFilenameSize = 1024;

} // namespace

bool Dir::getModuleFilename(std::string& out) {
    char buffer[kModuleFilenameSize] = {};
    const size_t length = dir_platform::readModuleFilename(buffer, sizeof buffer);
    if (length == sizeof buffer) {
        MLOG(Warn, "CORE::Dir::getModuleFilename", "buffer to small");
        return false;
    }
    out = buffer;
    return true;
}

bool Dir::getModuleDir(std::string& out) {
    std::string filename;
    if (!getModuleFilename(filename)) return false;
    const size_t separator = filename.rfind(kPathSeparator);
    if (!CHECKF(separator != std::string::npos, "%s", filename)) return false;
    out = filename.substr(0, separator);
    return true;
}

bool Dir::setCurrentDir(const std::string& path) {
    // Built before the call, so that nothing comes between it and the reading of its error.
    const std::string prefix = formatString("Dir::setCurrentDir: Failed to set working to '%s'", path);
    if (dir_platform::setCurrentDirectory(path)) return true;
    logLastError(prefix);
    return false;
}

bool Dir::setCurrentDirRelativeToModuleDir(const std::string& suffix) {
    std::string moduleDir;
    if (!getModuleDir(moduleDir)) {
        constexpr Place place = here();
        MasterLogger::logAt(LogLevel::Warn, place.unit, place.line);
        return false;
    }
    // A suffix longer than the directory makes the position wrap around, and compare throws out_of_range.
    const size_t position = moduleDir.size() - suffix.size();
    if (moduleDir.compare(position, std::string::npos, suffix) != 0) {
        MLOG(Warn, "CORE::Dir::setCurrentDirRelativeToModuleDir", "'%s' not in '%s'", suffix, moduleDir);
        return false;
    }
    return setCurrentDir(moduleDir.substr(0, position));
}

} // namespace NS_CORE
