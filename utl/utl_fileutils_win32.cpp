#include <windows.h>

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "core/text/core_utf8.h"
#include "core/text/core_utf8_win32.h"
#include "utl/utl_fileutils.h"

namespace NS_UTL {

bool FileUtils::renameFile(const std::string& from, const std::string& to) {
    std::u16string wideFrom;
    std::u16string wideTo;
    if (!CHECKF(NS_CORE::fromUtf8(from, wideFrom), "%s", from)) return false;
    if (!CHECKF(NS_CORE::fromUtf8(to, wideTo), "%s", to)) return false;
    if (::MoveFileExW(NS_CORE::systemWide(wideFrom).c_str(), NS_CORE::systemWide(wideTo).c_str(),
                      MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return true;
    const uint32_t error = NS_CORE::lastSystemError();
    MLOG(Info, "NS_UTL::FileUtils::renameFile", "'%s'=>'%s' failed : %s", from, to, NS_CORE::systemErrorText(error));
    return false;
}

} // namespace NS_UTL
