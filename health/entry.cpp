#include <string>
#include <vector>

#include "core/check/core_assert.h"
#include "core/log/core_v2masterlogger.h"
#include "health/facts.h"
#include "health/findings.h"
#include "health/options.h"
#include "health/recovery.h"
#include "health/report.h"

namespace {

constexpr int kUnknown = 3;

// Monitoring reads standard output, and the command must change no file, so the libraries' own messages go nowhere.
void silenceLibraries() {
    using namespace NS_CORE;
    for (const uint32_t level : {LogLevel::Crit, LogLevel::Warn, LogLevel::Info, LogLevel::Norm})
        static_cast<void>(MasterLogger::setLevelOn(level, false));
    Assert::installFailureHandler(nullptr);
}

int finish(int exitCode, const std::string& text) {
    health::machine::print(text);
    return exitCode;
}

int finish(const health::Outcome& outcome) {
    return finish(outcome.exitCode, outcome.text);
}

int check(const health::Installation& installation, const health::Options& options) {
    const health::Facts facts = health::gather(installation, options.hours);
    const std::vector<health::Finding> findings = health::judge(facts);
    return finish(health::exitCode(health::worstOf(findings)),
                  options.isJson ? health::jsonOf(facts, findings) : health::lineOf(facts, findings));
}

} // namespace

int main(int argc, char** argv) {
    using Action = health::Options::Action;
    silenceLibraries();
    const health::Options options = health::parseOptions(std::vector<std::string>(argv + (argc > 0), argv + argc));
    if (!options.error.empty()) return finish(kUnknown, "UNKNOWN: " + options.error + '\n');
    if (options.action == Action::Help) return finish(0, health::helpText());
    if (options.action == Action::Version) return finish(0, health::versionText());
    const auto installation = health::Installation::own();
    if (!installation)
        return finish(kUnknown, "UNKNOWN: this program does not lie in the bin directory of an installation.\n");
    if (options.action == Action::ClearOrphan) return finish(health::clearOrphans(*installation));
    if (options.action == Action::Recover) return finish(health::recover(*installation));
    return check(*installation, options);
}
