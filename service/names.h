#pragma once

#include <cstdint>

// The names of the parts of an installation. They never change: installed systems, the companion and the Keri software
// rely on them.
namespace service {

// The executable's file name, extension included, under which the service is registered on every platform.
inline constexpr const char* kServiceName = "quorkeri_service.exe";

// The companion: beside the executable, without arguments.
inline constexpr const char* kCompanionName = "quorkeri_wrapper.exe";
inline constexpr uint16_t kStopPort = 34002; // where the companion listens, on 127.0.0.1

// The uninstall entry of the Keri software, a 32-bit package: the path spells out the 32-bit view, so that every
// process finds it.
inline constexpr const char* kKeriKey =
    R"(SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\{28C70475-353F-47A1-BD2B-6219F4C7A0C6})";
inline constexpr const char* kKeriValue = "InstallLocation"; // its directory

// What the companion needs of the Keri software, in the order in which it is copied.
inline constexpr const char* kLibraries[] = {
    "ClientSocketServices.dll", "DHS.dll",           "DHS_Commands.dll", "SocketServices.dll",
    "TracerX-Logger.dll",       "DHSAttributes.dll",
};

} // namespace service
