#pragma once

// What core_crashreport.cpp asks of the platform. For that unit alone.
namespace NS_CORE::crashreport_platform {

// Parts the directories of the dump's path.
extern const char kSeparator;

} // namespace NS_CORE::crashreport_platform
