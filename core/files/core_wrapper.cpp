#include "core/files/core_wrapper.h"

#include <cerrno>

#include "core/files/core_wrapper_platform.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_threadword.h"
#include "core/text/core_checkf.h"
#include "core/text/core_utf8.h"

namespace NS_CORE {
namespace {

// Not thread_local, which allocates on Windows: the log of a crash is opened through here.
constinit ThreadWord g_useNarrowPaths;

bool useWide() {
    return g_useNarrowPaths.get() == 0;
}

// False, after a failed CHECKF and with errno set, when the wide form is asked for and the path does not convert.
bool preparePath(wrapper_platform::Path& path) {
    if (!path.useWide || CHECKF(fromUtf8(path.narrow, path.wide), "%s", path.narrow)) return true;
    errno = EILSEQ;
    return false;
}

wrapper_platform::Path pathInChosenForm(const std::string& path) {
    return {path, {}, useWide() || !wrapper_platform::hasNarrowForm()};
}

bool isLengthValid(int32_t length) {
    if (length >= 0) return true;
    errno = EINVAL;
    return false;
}

} // namespace

bool Wrapper::useWidePaths() {
    return useWide();
}

void Wrapper::setUseWidePaths(bool useWide) {
    g_useNarrowPaths.set(useWide ? 0 : 1);
}

int Wrapper::open(const std::string& path, int openFlags, int permissionMode) {
    wrapper_platform::Path prepared = pathInChosenForm(path);
    if (!preparePath(prepared)) return -1;
    return wrapper_platform::open(prepared, openFlags, permissionMode);
}

int Wrapper::unlink(const std::string& path) {
    wrapper_platform::Path prepared = pathInChosenForm(path);
    if (!preparePath(prepared)) return -1;
    int result = wrapper_platform::unlink(prepared);
    if (result == 0) return result;

    const int firstError = errno;
    if (firstError == EACCES) {
        if (wrapper_platform::makeWritable(prepared) == 0)
            result = wrapper_platform::unlink(prepared);
        else
            MLOG(Norm, "NS_CORE::Wrapper::unlink", "failed to chmod %s to unlink", path);
    }
    errno = firstError;
    return result;
}

std::FILE* Wrapper::fopen(const std::string& path, const std::string& mode) {
    wrapper_platform::Path preparedPath{path, {}, /*useWide=*/true};
    wrapper_platform::Path preparedMode{mode, {}, /*useWide=*/true};
    if (!preparePath(preparedPath) || !preparePath(preparedMode)) return nullptr;
    return wrapper_platform::fopen(preparedPath, preparedMode);
}

int32_t Wrapper::read(int fd, void* data, int32_t length) {
    return isLengthValid(length) ? wrapper_platform::read(fd, data, length) : -1;
}

int32_t Wrapper::write(int fd, const void* data, int32_t length) {
    return isLengthValid(length) ? wrapper_platform::write(fd, data, length) : -1;
}

void logLastError(const std::string& prefix) {
    const uint32_t error = lastSystemError();
    MLOG(Warn, "CORE::logLastError", "%s: %s", prefix, systemErrorText(error));
}

} // namespace NS_CORE
