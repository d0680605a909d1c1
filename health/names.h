#pragma once

#include <cstdint>

// The names that the parts of an installation have; they belong to the service and never change.
namespace health {

inline constexpr const char* kServiceName = "quorkeri_service.exe"; // as the service manager knows it
inline constexpr const char* kCompanionName = "quorkeri_wrapper.exe";
inline constexpr uint16_t kStopPort = 34002; // where the companion listens, on 127.0.0.1
inline constexpr const char* kKeriKey =
    R"(SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\{28C70475-353F-47A1-BD2B-6219F4C7A0C6})";
inline constexpr const char* kKeriValue = "InstallLocation";
inline constexpr const char* kLibraries[] = {
    "ClientSocketServices.dll", "DHS.dll",           "DHS_Commands.dll", "SocketServices.dll",
    "TracerX-Logger.dll",       "DHSAttributes.dll",
};

} // namespace health
