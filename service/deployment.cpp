#include "service/deployment.h"

#include "core/files/core_dir.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_pathseparator.h"
#include "service/names.h"
#include "utl/utl_fileutils.h"
#include "utl/utl_registry.h"

namespace service {
namespace {

void copyLibrary(const char* name, const std::string& keriDir, const std::string& moduleDir) {
    // Nothing is trimmed: the systems accept a doubled separator.
    const std::string source = NS_CORE::formatString("%s%c%s", keriDir, NS_CORE::kPathSeparator, name);
    const std::string destination = NS_CORE::formatString("%s%c%s", moduleDir, NS_CORE::kPathSeparator, name);
    if (NS_UTL::FileUtils::copy(source, destination)) return;
    MLOG(Warn, "CopyDependencies", "Failed copying '%s' from '%s' to '%s'", name, keriDir, moduleDir);
}

} // namespace

std::string getKeriInstallDir() {
    NS_UTL::RegistryKey key;
    if (!key.open(kKeriKey)) {
        MLOG(Crit, "getKeriInstallDir", "Failed opening Keri registry key");
        return {};
    }
    std::string directory;
    if (!key.getValue(kKeriValue, directory)) {
        MLOG_LIMITED(NS_CORE::LogRate::Hourly, NS_CORE::LogLevel::Crit, "getKeriInstallDir",
                     "Could not locate KERI install directory from registry");
        return {};
    }
    return directory;
}

void CopyDependencies() {
    MLOG(Info, "CopyDependencies", "Copying dependencies");
    const std::string keriDir = getKeriInstallDir();
    std::string moduleDir;
    if (!NS_CORE::Dir::getModuleDir(moduleDir)) {
        MLOG(Warn, "CopyDependencies", "Failed getting module dir");
        return;
    }
    if (keriDir.empty()) {
        MLOG(Warn, "CopyDependencies", "Failed getting keri install path");
        return;
    }
    for (const char* name : kLibraries) copyLibrary(name, keriDir, moduleDir);
}

} // namespace service
