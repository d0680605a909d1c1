#pragma once

#include <cstdint>

#include "utl/utl_processutils.h"

// What utl_processutils.cpp asks of the platform. For that unit alone.
namespace NS_UTL::processutils_platform {

// Starts the program and waits for its end, silently. systemError holds the system's code after StartFailed.
ProcessUtils::Result startAndWait(const char* commandLine, unsigned long& exitCode, uint32_t& systemError);

} // namespace NS_UTL::processutils_platform
