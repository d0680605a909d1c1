#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "health/local_time.h"

namespace health {

// What service.log says. A life is one run of the service; the last one is everything after the last "Running".
struct LogSummary {
    uint32_t restartsLastHour = 0; // the companion's, of every life
    LocalSeconds lastLine = 0;     // 0: there is no line
    // The stop that the last life was asked for and has not completed.
    std::optional<LocalSeconds> stop;
    uint32_t restartsBeforeStop = 0; // of the last life
    uint32_t restartsAfterStop = 0;
    // The system's reason why the last life's last start of the companion failed; empty where it gave none.
    std::optional<std::string> startFailure;
};

// old, current  the bytes of service.log.old and service.log; lines that are not the service's are skipped.
LogSummary readServiceLog(std::string_view old, std::string_view current, LocalSeconds now);

} // namespace health
