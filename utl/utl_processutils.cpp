#include "utl/utl_processutils.h"

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "utl/utl_processutils_platform.h"

namespace NS_UTL {

ProcessUtils::Result ProcessUtils::start(const char* commandLine, unsigned long* exitCode) {
    uint32_t systemError = 0;
    const Result result = processutils_platform::startAndWait(commandLine, *exitCode, systemError);
    if (result == Result::StartFailed)
        MLOG(Warn, "NS_UTL::ProcessUtils::start", "failed to start '%s': %s", commandLine,
             NS_CORE::systemErrorText(systemError));
    return result;
}

} // namespace NS_UTL
