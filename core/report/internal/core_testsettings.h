#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace NS_CORE {

// What a failure of each kind brings about: bits of TestSettings::actionFlags.
namespace TestAction {
inline constexpr uint32_t AssertAbort = 0x01;
inline constexpr uint32_t AssertSend = 0x02;
inline constexpr uint32_t AssertBacktrace = 0x04;
inline constexpr uint32_t AlertAbort = 0x08;
inline constexpr uint32_t AlertSend = 0x10;
inline constexpr uint32_t AlertBacktrace = 0x20;
} // namespace TestAction

// Where reports go unless the settings say otherwise: the address that our test networks keep for the collector.
// It is a private one (RFC 1918), so nothing leaves a site by mistake; and nothing is sent at all by default.
inline constexpr const char* kDefaultCollectorAddress = "192.168.0.250";
inline constexpr int32_t kDefaultCollectorPort = 25000;

// The test interface's settings, as they are without a settings file.
struct TestSettings {
    int32_t assertLevel = 1;
    std::string sendAddress = kDefaultCollectorAddress;
    int32_t sendPort = kDefaultCollectorPort;
    std::string symbolServerAddress;
    uint32_t actionFlags = 0;

    bool operator==(const TestSettings&) const = default;
};

// Reads the lines of a settings file into TestSettings:
//
//     # A comment.
//     [general]
//     send_address 10.0.0.7       dotted quad
//     send_port 25000             1 to 65534
//     symbol_server_address TEXT
//     assert_level 1              1 to 3, which all mean 1
//     [assert]                    and [alert]; values are 1 t true enable or 0 f false disable
//     abort disable               no value ever sets the abort bits; true clears those of both sections
//     send enable                 true also clears both abort bits
//     backtrace enable            likewise
//
// The value "default" leaves a setting alone, and so does a number out of range. What else is not understood is told
// at WARN, at most kMaxComplaints times.
class TestSettingsParser {
public:
    static constexpr int32_t kMaxComplaints = 100;

    // Changes *settings, which outlives the parser.
    explicit TestSettingsParser(TestSettings* settings) : m_settings(*settings) {}

    void takeLine(std::string_view line);

private:
    enum class Section { None, General, Assert, Alert, Unknown };

    void beginSection(std::string_view name);
    void takeGeneral(std::string_view key, std::string_view value);
    void takeAction(std::string_view key, std::string_view value);
    void complainAboutKey(std::string_view key);
    void complainAboutAction(std::string_view key, std::string_view value, int32_t place);
    bool mayComplain();

    TestSettings& m_settings;
    Section m_section = Section::None;
    std::string m_sectionName;
    int32_t m_complaints = 0;
};

} // namespace NS_CORE
