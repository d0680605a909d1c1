#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/report/core_failuredefault.h"

namespace NS_CORE {

// What happens after a failure of each kind: bits of TestSettings::actionFlags.
namespace TestAction {
inline constexpr uint32_t AssertAbort = 0x01;
inline constexpr uint32_t AssertSend = 0x02;
inline constexpr uint32_t AssertBacktrace = 0x04;
inline constexpr uint32_t AlertAbort = 0x08;
inline constexpr uint32_t AlertSend = 0x10;
inline constexpr uint32_t AlertBacktrace = 0x20;

// The bits of one kind of failure.
constexpr uint32_t abortBit(FailureKind kind) {
    return kind == FailureKind::Assertion ? AssertAbort : AlertAbort;
}
constexpr uint32_t sendBit(FailureKind kind) {
    return kind == FailureKind::Assertion ? AssertSend : AlertSend;
}
constexpr uint32_t backtraceBit(FailureKind kind) {
    return kind == FailureKind::Assertion ? AssertBacktrace : AlertBacktrace;
}
} // namespace TestAction

// Where reports go unless the settings say otherwise: the collector's address in our test networks. It is a private
// one (RFC 1918), so nothing leaves a site by mistake; and nothing is sent at all by default.
inline constexpr const char* kDefaultCollectorAddress = "192.168.0.250";
inline constexpr int32_t kDefaultCollectorPort = 25000;

// The test interface's settings; the values here hold without a settings file.
struct TestSettings {
    int32_t assertLevel = 1;
    std::string sendAddress = kDefaultCollectorAddress;
    int32_t sendPort = kDefaultCollectorPort;
    std::string symbolServerAddress;
    uint32_t actionFlags = 0;

    bool operator==(const TestSettings&) const = default;
};

// Changes a TestSettings as the lines of a settings file say. What the file does not name stays as it is.
//
//     # A comment.
//     [general]
//     send_address 10.0.0.7       dotted quad
//     send_port 25000             1 to 65534
//     symbol_server_address TEXT
//     assert_level 1              1 to 3, which all mean 1
//     [assert]                    and [alert]; values are 1 t true enable or 0 f false disable
//     abort disable               no value ever sets an abort bit; true clears those of both sections
//     send enable                 true also clears both abort bits
//     backtrace enable            likewise
//
// The value "default" leaves a setting alone, and so does a text that is not a number within the range. Unknown
// sections and keys, and other values of [assert] and [alert], log WARN. Lines before the first section, in an unknown
// one, and keys of [general] without a value are ignored.
class TestSettingsParser {
public:
    // Borrows *settings for its own life.
    explicit TestSettingsParser(TestSettings* settings) : m_settings(*settings) {}

    void addLine(std::string_view line);

private:
    enum class Section { None, General, Assert, Alert, Unknown };

    void beginSection(std::string_view name);
    void applyGeneral(std::string_view key, std::string_view value);
    void applyAction(std::string_view key, std::string_view value);
    void warnAboutKey(std::string_view key);
    void warnAboutAction(std::string_view key, std::string_view value, int32_t place);

    TestSettings& m_settings;
    Section m_section = Section::None;
    std::string m_sectionName;
};

} // namespace NS_CORE
