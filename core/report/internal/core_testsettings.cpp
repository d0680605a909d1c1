#include "core/report/internal/core_testsettings.h"

#include <optional>
#include <vector>

#include "core/files/core_settingsfile.h"
#include "core/log/core_v2masterlogger.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kLoadIni = "NS_CORE::TestInterface::loadIni";
constexpr uint32_t kBothAborts = TestAction::AssertAbort | TestAction::AlertAbort;

// A key of the sections [assert] and [alert].
struct ActionKey {
    std::string_view name;
    uint32_t assertBit;
    uint32_t alertBit;
    int32_t place; // published with the location record of a bad value
};

constexpr ActionKey kActionKeys[] = {
    {"abort", TestAction::AssertAbort, TestAction::AlertAbort, 664},
    {"send", TestAction::AssertSend, TestAction::AlertSend, 679},
    {"backtrace", TestAction::AssertBacktrace, TestAction::AlertBacktrace, 694},
};

std::optional<bool> truthOf(std::string_view value) {
    if (value == "1" || value == "t" || value == "true" || value == "enable") return true;
    if (value == "0" || value == "f" || value == "false" || value == "disable") return false;
    return std::nullopt;
}

std::optional<int32_t> numberWithin(std::string_view value, int32_t lowest, int32_t highest) {
    const std::optional<int32_t> number = settingsNumber(value);
    return number && *number >= lowest && *number <= highest ? number : std::nullopt;
}

} // namespace

void TestSettingsParser::addLine(std::string_view line) {
    const std::vector<std::string_view> tokens = settingsTokens(line);
    if (tokens.empty()) return;
    const std::string_view key = tokens[0];
    if (key.starts_with('#')) return;
    if (key.size() > 2 && key.starts_with('[') && key.ends_with(']')) {
        beginSection(key.substr(1, key.size() - 2));
        return;
    }
    const std::string_view value = tokens.size() > 1 ? tokens[1] : std::string_view();
    if (value == "default") return;
    switch (m_section) {
        case Section::General:
            if (tokens.size() > 1) applyGeneral(key, value);
            break;
        case Section::Assert:
        case Section::Alert:
            applyAction(key, value);
            break;
        case Section::None:
        case Section::Unknown: // its header has logged a warning
            break;
    }
}

void TestSettingsParser::beginSection(std::string_view name) {
    m_sectionName = name;
    if (name == "general") {
        m_section = Section::General;
    } else if (name == "assert") {
        m_section = Section::Assert;
    } else if (name == "alert") {
        m_section = Section::Alert;
    } else {
        m_section = Section::Unknown;
        MLOG(Warn, kLoadIni, "unhandled section '%s'", name);
    }
}

void TestSettingsParser::applyGeneral(std::string_view key, std::string_view value) {
    if (key == "send_address") {
        m_settings.sendAddress = value;
    } else if (key == "send_port") {
        m_settings.sendPort = numberWithin(value, 1, 65534).value_or(m_settings.sendPort);
    } else if (key == "symbol_server_address") {
        m_settings.symbolServerAddress = value;
    } else if (key == "assert_level") {
        // Levels 2 and 3 are those of old files; the checks that they switched on are gone.
        if (numberWithin(value, 1, 3)) m_settings.assertLevel = 1;
    } else {
        warnAboutKey(key);
    }
}

void TestSettingsParser::applyAction(std::string_view key, std::string_view value) {
    for (const ActionKey& action : kActionKeys) {
        if (key != action.name) continue;
        const std::optional<bool> truth = truthOf(value);
        if (!truth) {
            warnAboutAction(key, value, action.place);
            return;
        }
        const uint32_t bit = m_section == Section::Assert ? action.assertBit : action.alertBit;
        const bool isAbort = (bit & kBothAborts) != 0;
        if (!*truth) {
            m_settings.actionFlags &= ~bit;
            return;
        }
        // Choosing what happens after a failure means that the process goes on after it, in both sections. Even
        // `abort true` has always worked like this; only code sets the abort bits.
        m_settings.actionFlags &= ~kBothAborts;
        if (!isAbort) m_settings.actionFlags |= bit;
        return;
    }
    warnAboutKey(key);
}

void TestSettingsParser::warnAboutKey(std::string_view key) {
    MLOG(Warn, kLoadIni, "unhandled val '%s' in section '%s'", key, m_sectionName);
}

void TestSettingsParser::warnAboutAction(std::string_view key, std::string_view value, int32_t place) {
    if (m_section == Section::Assert)
        MasterLogger::logAt(LogLevel::Warn, "core_testinterface", place);
    else
        MLOG(Warn, kLoadIni, "bad value '%s' of '%s' in section '%s'", value, key, m_sectionName);
}

} // namespace NS_CORE
