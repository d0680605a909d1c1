#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <thread>

#include "core/files/core_wrapper.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/open_handles_win32.h"
#include "tests/utl/registry_test.h"

using NS_UTL::RegistryKey;

namespace {

bool keyExists(const std::string& subKey, REGSAM view = 0) {
    HKEY key = nullptr;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, subKey.c_str(), 0, KEY_QUERY_VALUE | view, &key) != ERROR_SUCCESS)
        return false;
    ::RegCloseKey(key);
    return true;
}

bool runsOn64BitWindows() {
    BOOL wow64 = FALSE;
    EXPECT_TRUE(::IsWow64Process(::GetCurrentProcess(), &wow64));
    return wow64 != FALSE;
}

} // namespace

TEST_F(RegistryKeyTest, CreatesAMissingKeyAndThenMissesTheValue) {
    m_value.removeKey();
    ASSERT_FALSE(keyExists(kSubKey));
    EXPECT_EQ(text(), "left alone");
    EXPECT_FALSE(m_result);
    EXPECT_TRUE(keyExists(kSubKey));
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{"WARN NS_UTL::RegistryKey::getValue(v) - error 2"}));
}

TEST_F(RegistryKeyTest, SeesThe32BitViewAndTheOneThatThePathSpells) {
    m_value.set(REG_SZ, std::string("x\0", 2));
    EXPECT_TRUE(keyExists(kSubKey, KEY_WOW64_32KEY));
    EXPECT_EQ(keyExists(kSubKey, KEY_WOW64_64KEY), !runsOn64BitWindows());
    if (!runsOn64BitWindows()) return;
    RegistryKey key;
    ASSERT_TRUE(key.open("SOFTWARE\\Wow6432Node\\Quorkeri tests\\Key"));
    std::string text;
    EXPECT_TRUE(key.getValue("v", text));
    EXPECT_EQ(text, "x");
}

TEST_F(RegistryKeyTest, KeepsTheKeyOpenForTheProcesssLife) {
    m_value.set(REG_SZ, std::string("x\0", 2));
    // What the registry library itself keeps from its first use on is not to count.
    ASSERT_EQ(text(), "x");
    const int64_t before = test::openHandles();
    EXPECT_EQ(text(), "x");
    EXPECT_EQ(test::openHandles(), before + 1);
}

REGSAM g_access = 0;

LSTATUS WINAPI createAndNote(HKEY root, LPCSTR subKey, DWORD reserved, LPSTR keyClass, DWORD options, REGSAM access,
                             LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) {
    g_access = access;
    EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
    EXPECT_TRUE(reserved == 0 && !keyClass && options == REG_OPTION_NON_VOLATILE && !security && !disposition);
    return ::RegCreateKeyExW(root, std::wstring(subKey, subKey + strlen(subKey)).c_str(), 0, nullptr, options, access,
                             nullptr, key, nullptr);
}

TEST_F(RegistryKeyTest, AsksForTheRightToQueryValuesAndNothingElse) {
    const test::ImportHook hook("RegCreateKeyExA", &createAndNote);
    RegistryKey key;
    EXPECT_TRUE(key.open("SOFTWARE"));
    EXPECT_EQ(g_access, REGSAM{KEY_QUERY_VALUE});
}

TEST_F(RegistryKeyTest, ReportsAKeyThatCannotBeOpenedWithTheThreadsLastError) {
    // No key's name is that long.
    const std::string subKey = "SOFTWARE\\" + std::string(300, 'k');
    ::SetLastError(ERROR_ACCESS_DENIED);
    RegistryKey key;
    EXPECT_FALSE(key.open(subKey));
    // The registry's calls return their error instead of setting it.
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{"WARN CORE::logLastError - RegistryKey: failed open '" + subKey +
                                                       "': " + NS_CORE::systemErrorText(ERROR_ACCESS_DENIED)}));
}

TEST_F(RegistryKeyTest, FollowsAValueThatGrowsBetweenTheReads) {
    m_value.set(REG_SZ, std::string(17, 'x'));
    RegistryKey key;
    ASSERT_TRUE(key.open(kSubKey));
    // Another thread makes it ever longer, so that a read can find less room than the one before asked for.
    std::atomic<bool> stop = false;
    std::thread writer([&] {
        for (size_t size = 17; !stop; size = size < 20000 ? size + 7 : 17) m_value.set(REG_SZ, std::string(size, 'x'));
    });
    for (int i = 0; i < 500; ++i) {
        std::string text;
        EXPECT_TRUE(key.getValue("v", text));
        EXPECT_EQ(text, std::string(text.size(), 'x'));
        EXPECT_GE(text.size(), 17U);
    }
    stop = true;
    writer.join();
}
