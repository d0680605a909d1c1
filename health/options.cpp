#include "health/options.h"

#include <charconv>
#include <string_view>

#include "core/identity/core_rcsname.h"
#include "core/text/core_varargs.h"
#include "health/findings.h"

namespace health {
namespace {

constexpr std::string_view kHelp =
    R"(quorkeri_health: says in one line whether the Quorvane Keri Wrapper of this installation is healthy.

  quorkeri_health [--json] [--since HOURS]    looks, and changes nothing
  quorkeri_health --clear-orphan              ends companions of this installation that have lost their service
  quorkeri_health --recover                   the same, then starts the service if it does not run
  quorkeri_health --help | --version

  --json         the same as one JSON object
  --since HOURS  a crash counts for this many hours, 1 to 8760; 24 by default

Exit code: 0 healthy, 1 warning, 2 critical or not done, 3 unknown or not understood. The figures after the "|" are for
monitoring: name=value;warning;critical. Only --clear-orphan and --recover need an administrator's rights.

What it finds:
)";

bool parseHours(std::string_view text, uint32_t* out) {
    uint32_t hours = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), hours);
    if (error != std::errc() || end != text.data() + text.size() || hours == 0 || hours > Options::kMaxHours)
        return false;
    *out = hours;
    return true;
}

Options refused(std::string sentence) {
    Options options;
    options.error = std::move(sentence);
    return options;
}

Options::Action actionOf(std::string_view word) {
    if (word == "--help") return Options::Action::Help;
    if (word == "--version") return Options::Action::Version;
    if (word == "--clear-orphan") return Options::Action::ClearOrphan;
    if (word == "--recover") return Options::Action::Recover;
    return Options::Action::Check;
}

} // namespace

Options parseOptions(const std::vector<std::string>& words) {
    Options options;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (const Options::Action action = actionOf(word); action != Options::Action::Check) {
            if (words.size() != 1) return refused(NS_CORE::formatString("'%s' stands alone.", word));
            options.action = action;
        } else if (word == "--json") {
            options.isJson = true;
        } else if (word == "--since") {
            ++i;
            if (i == words.size() || !parseHours(words[i], &options.hours))
                return refused("'--since' needs a number of hours, 1 to 8760.");
        } else {
            return refused(NS_CORE::formatString("The word '%s' is unknown; --help shows all.", word));
        }
    }
    return options;
}

std::string helpText() {
    std::string text(kHelp);
    for (const Finding& finding : catalogue())
        text += NS_CORE::formatString("\n  %s (%s)\n    %s.\n    %s\n", finding.name, severityText(finding.severity),
                                      finding.text, finding.cure);
    return text;
}

std::string versionText() {
    return NS_CORE::formatString("quorkeri_health %s (%s)\n", QUORKERI_PRODUCT_VERSION, NS_CORE::versionWithBuildId());
}

} // namespace health
