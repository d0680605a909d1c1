#include "health/commands.h"

namespace health {

const char* const kSampleRoot = "/opt/quorkeri";

Values commandsOf(const Installation& installation, const std::string& serviceId) {
    const std::string service = quoted(installation.service);
    return {{"then", "; "},
            {"start", service + " service-console"},
            {"stop", "kill -TERM " + serviceId},
            {"restart", "kill -TERM " + serviceId + "; " + service + " service-console"},
            {"console", service + " service-console"},
            {"copy", "cp quorkeri_wrapper.exe " + quoted(installation.bin)},
            {"bundle", quoted(Installation::in(installation.bin, "support-bundle"))},
            // The star stays outside of the quotes, so that the shell expands it.
            {"delete", "rm " + Installation::in(quoted(installation.temp), "support-*.zip")}};
}

std::string endCommand(const std::string& processId) {
    return "kill -9 " + processId;
}

} // namespace health
