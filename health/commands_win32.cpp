#include "health/commands.h"

namespace health {

const char* const kSampleRoot = "C:\\QuorkeriService";

Values commandsOf(const Installation& installation, const std::string& /*serviceId*/) {
    const std::string service = quoted(installation.service);
    return {{"then", " & "},
            {"start", "net start quorkeri_service.exe"},
            {"stop", "net stop quorkeri_service.exe"},
            {"restart", "net stop quorkeri_service.exe & net start quorkeri_service.exe"},
            {"install", "start /wait \"\" " + service + " service-install"},
            {"unregister", "sc delete quorkeri_service.exe"},
            {"enable", "sc config quorkeri_service.exe start= auto"},
            {"console", "start /wait /b \"\" " + service + " service-console"},
            {"copy", "copy quorkeri_wrapper.exe " + quoted(installation.bin)},
            {"bundle", quoted(Installation::in(installation.bin, "support-bundle.cmd"))},
            {"delete", "del " + quoted(Installation::in(installation.temp, "support-*.zip"))}};
}

std::string endCommand(const std::string& processId) {
    return "taskkill /f /pid " + processId;
}

} // namespace health
