#include "health/options.h"

#include <gtest/gtest.h>

#include "health/findings.h"

namespace health {
namespace {

using Action = Options::Action;

TEST(HealthOptions, AreTheWordsOfTheHelp) {
    struct Row {
        std::vector<std::string> words;
        Action action;
        bool isJson;
        uint32_t hours;
    };
    for (const auto& [words, action, isJson, hours] :
         {Row{{}, Action::Check, false, 24}, Row{{"--json"}, Action::Check, true, 24},
          Row{{"--since", "8760", "--json"}, Action::Check, true, 8760}, Row{{"--help"}, Action::Help, false, 24},
          Row{{"--version"}, Action::Version, false, 24}, Row{{"--clear-orphan"}, Action::ClearOrphan, false, 24},
          Row{{"--recover"}, Action::Recover, false, 24}}) {
        const Options options = parseOptions(words);
        EXPECT_EQ(options.error, "");
        EXPECT_EQ(options.action, action);
        EXPECT_EQ(options.isJson, isJson);
        EXPECT_EQ(options.hours, hours);
        EXPECT_NE(helpText().find(words.empty() ? "" : words.front()), std::string::npos);
    }
    for (const Finding& finding : catalogue())
        EXPECT_NE(helpText().find("\n  " + std::string(finding.name) + " ("), std::string::npos) << finding.name;
}

TEST(HealthOptions, RefuseWhatMakesNoSense) {
    const std::string needsHours = "'--since' needs a number of hours, 1 to 8760.";
    for (const auto& [words, sentence] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--jason"}, "The word '--jason' is unknown; --help shows all."},
             {{"--json", ""}, "The word '' is unknown; --help shows all."},
             {{"--json", "--recover"}, "'--recover' stands alone."},
             {{"--recover", "--clear-orphan"}, "'--recover' stands alone."},
             {{"--since"}, needsHours},
             {{"--since", "0"}, needsHours},
             {{"--since", "8761"}, needsHours},
             {{"--since", "-1"}, needsHours},
             {{"--since", "1h"}, needsHours},
             {{"--since", "99999999999"}, needsHours}})
        EXPECT_EQ(parseOptions(words).error, sentence);
}

} // namespace
} // namespace health
