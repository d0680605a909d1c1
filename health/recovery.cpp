#include "health/recovery.h"

#include "core/text/core_varargs.h"
#include "core/time/core_time.h"
#include "health/facts.h"
#include "service/names.h"

namespace health {
namespace {

constexpr int kNotDone = 2;
constexpr uint32_t kPauseMs = 50;
constexpr uint32_t kStartLimitMs = 30'000;

std::optional<Process> runningService(const Installation& installation) {
    std::vector<Process> all = machine::processes();
    companionsOf(installation, all);
    return findService(installation, machine::registration(service::kServiceName), all);
}

// Asks the manager to start the service, but not another installation's.
std::string startOwn(const Installation& installation) {
    const Registration registration = machine::registration(service::kServiceName);
    if (registration.answer == Registration::Answer::Registered &&
        !isSamePath(programOf(registration.command), installation.service))
        return "the registered service is another installation's, " + registration.command;
    return machine::startService(service::kServiceName);
}

// Returns an empty text, or the reason of a failure. The manager may not have noticed yet that the old process has
// ended; then it reports the service as running and starts nothing. So this requests the start until the process is
// there.
std::string startAndAwait(const Installation& installation) {
    for (uint32_t waited = 0; waited <= kStartLimitMs; waited += kPauseMs) {
        if (const std::string reason = startOwn(installation); !reason.empty()) return reason;
        if (runningService(installation)) return "";
        NS_CORE::sleepFor(kPauseMs);
    }
    return "it did not run within 30 seconds";
}

} // namespace

Outcome clearOrphans(const Installation& installation) {
    std::vector<Process> all = machine::processes();
    Outcome outcome;
    for (const auto& [process, owner] : companionsOf(installation, all)) {
        if (owner != Companion::Owner::Nobody) continue;
        const std::string reason = machine::endProcess(process);
        if (!reason.empty()) outcome.exitCode = kNotDone;
        outcome.text +=
            reason.empty()
                ? NS_CORE::formatString("Ended orphaned companion process %u, %s.\n", process.id, process.image)
                : NS_CORE::formatString("Orphaned companion process %u, %s, cannot be ended: %s.\n", process.id,
                                        process.image, reason);
    }
    if (outcome.text.empty()) outcome.text = "There is no orphaned companion of this installation.\n";
    return outcome;
}

Outcome recover(const Installation& installation) {
    Outcome outcome = clearOrphans(installation);
    if (const auto service = runningService(installation)) {
        outcome.text += NS_CORE::formatString("The service runs already, as process %u.\n", service->id);
        return outcome;
    }
    const std::string reason = startAndAwait(installation);
    if (reason.empty()) {
        outcome.text += "The service was started.\n";
        return outcome;
    }
    outcome.text += NS_CORE::formatString("The service was not started: %s.\n", reason);
    outcome.exitCode = kNotDone;
    return outcome;
}

} // namespace health
