#include <gtest/gtest.h>

#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/registry_value.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_registry.h"

using NS_UTL::RegistryKey;

namespace {

const std::string kKeriKey =
    "SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}";

// A working directory with a registry file of the given text.
class RegistryFile {
public:
    RegistryFile() { std::filesystem::current_path(m_dir.path()); }
    explicit RegistryFile(const std::string& text) : RegistryFile() {
        std::filesystem::create_directory("settings");
        test::writeFile("settings/registry.reg", text);
    }
    ~RegistryFile() { std::filesystem::current_path("/"); }

private:
    test::TempDir m_dir;
};

} // namespace

TEST(RegistryKeyLinux, ReadsTheSampleThatServesBothPlatforms) {
    const RegistryFile file(test::readFile(test::dataFile("keri.reg")));
    test::LogRecorder log;
    RegistryKey key;
    ASSERT_TRUE(key.open(kKeriKey));
    std::string text;
    EXPECT_TRUE(key.getValue("InstallLocation", text));
    EXPECT_EQ(text, "C:\\Keri\\");
    EXPECT_TRUE(key.getValue("DisplayName", text));
    EXPECT_EQ(text, "Keri \"Sample\" Software");
    EXPECT_FALSE(key.getValue("UninstallString", text));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"WARN NS_UTL::RegistryKey::getValue(UninstallString) - type=2 expected 1"}));
}

TEST(RegistryKeyLinux, DoesNotOpenAKeyThatIsNotInTheFileOrWithoutAFile) {
    const RegistryFile none;
    test::LogRecorder log;
    std::vector<std::string> expected;
    RegistryKey key;
    // It is as if the first had never been tried.
    for (const char* const subKey : {"SOFTWARE\\X", "SOFTWARE\\Y"}) {
        EXPECT_FALSE(key.open(subKey));
        expected.push_back("WARN CORE::logLastError - RegistryKey: failed open '" + std::string(subKey) +
                           "': No such file or directory");
        const RegistryFile file("Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\SOFTWARE\\X]\n");
        EXPECT_FALSE(key.open(subKey));
        expected.push_back(expected.back());
    }
    EXPECT_EQ(log.lines(), expected);
}
