#include <cstdio>

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "core/text/core_utf8.h"
#include "utl/utl_fileutils.h"

namespace NS_UTL {

bool FileUtils::renameFile(const std::string& from, const std::string& to) {
    // Linux accepts any bytes as a name; the twin refuses what Windows refuses.
    std::u16string unused;
    if (!CHECKF(NS_CORE::fromUtf8(from, unused), "%s", from)) return false;
    if (!CHECKF(NS_CORE::fromUtf8(to, unused), "%s", to)) return false;
    if (std::rename(from.c_str(), to.c_str()) == 0) return true;
    const uint32_t error = NS_CORE::lastSystemError();
    MLOG(Info, "NS_UTL::FileUtils::renameFile", "'%s'=>'%s' failed : %s", from, to, NS_CORE::systemErrorText(error));
    return false;
}

} // namespace NS_UTL
