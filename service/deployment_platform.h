#pragma once

// What deployment.cpp asks of the platform. For that unit alone.
namespace deployment_platform {

// Joins a directory and a file's name. Nothing is trimmed, because the systems take a doubled separator. Windows'
// separator would be an ordinary character of a file's name on Linux, so each platform has its own.
extern const char* const kPathFormat;

} // namespace deployment_platform
