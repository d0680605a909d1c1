#include "utl/utl_registry.h"

#include <gtest/gtest.h>

#include "tests/support/hook_recorder.h"
#include "tests/utl/registry_test.h"
#include "utl/utl_regtype.h"

using NS_UTL::RegistryKey;
namespace RegType = NS_UTL::RegType;

namespace {

void expectCheck(const test::HookRecorder& hook) {
    const test::FailedCheck check = hook.single();
    EXPECT_EQ(check, (test::FailedCheck{"CHECKF", "utl_registry", check.line, 0, ""}));
}

TEST_F(RegistryKeyTest, RefusesASecondOpenAndKeepsTheFirstKey) {
    m_value.set(RegType::Sz, std::string("kept\0", 5));
    RegistryKey key;
    ASSERT_TRUE(key.open(kSubKey));
    {
        const test::HookRecorder hook;
        EXPECT_FALSE(key.open("SOFTWARE"));
        expectCheck(hook);
    }
    std::string out;
    EXPECT_TRUE(key.getValue("v", out));
    EXPECT_EQ(out, "kept");
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RegistryKeyTest, RefusesToReadBeforeItIsOpened) {
    const test::HookRecorder hook;
    const RegistryKey key;
    std::string out = "left alone";
    EXPECT_FALSE(key.getValue("v", out));
    expectCheck(hook);
    EXPECT_EQ(out, "left alone");
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RegistryKeyTest, ReadsTextAsStoredLessOneTerminator) {
    std::vector<std::string> values = {std::string("C:\\Keri\\\0", 9), std::string("C:\\Keri\0\0", 9),
                                       std::string("a\0b\0", 4), std::string("\0", 1),
                                       "C:\\Ж é 測試 \xf0\x9f\x94\x91" + std::string(1, '\0')};
    // Around the first guess; with a terminator and without.
    for (const size_t size : {1U, 2U, 14U, 15U, 16U, 17U, 18U, 32U, 33U, 1000U, 100000U}) {
        std::string text;
        while (text.size() < size) text += static_cast<char>('a' + text.size() % 26);
        values.push_back(text);
        text.back() = '\0';
        values.push_back(text);
    }
    for (const std::string& value : values) {
        m_value.set(RegType::Sz, value);
        EXPECT_EQ(storedBytes(), value);
        EXPECT_EQ(text(), value.back() == '\0' ? value.substr(0, value.size() - 1) : value);
        EXPECT_TRUE(m_result);
    }
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RegistryKeyTest, TakesAValueOfNoBytesForMisuse) {
    m_value.set(RegType::Sz, "");
    const test::HookRecorder hook;
    EXPECT_EQ(text(), "left alone");
    EXPECT_FALSE(m_result);
    expectCheck(hook);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RegistryKeyTest, RefusesEveryOtherType) {
    std::vector<std::string> expected;
    for (const auto& [type, bytes] : {std::pair{RegType::ExpandSz, std::string("%ProgramFiles%\\Keri\0", 20)},
                                      {RegType::Dword, std::string("\x2a\0\0\0", 4)},
                                      {RegType::MultiSz, std::string("a\0\0", 3)},
                                      {RegType::Binary, std::string(1000, 'x')},
                                      {RegType::None, std::string()},
                                      {12345U, std::string("x")}}) {
        m_value.set(type, bytes);
        EXPECT_EQ(text(), "left alone");
        EXPECT_FALSE(m_result);
        expected.push_back("WARN NS_UTL::RegistryKey::getValue(v) - type=" + std::to_string(type) + " expected 1");
    }
    EXPECT_EQ(m_log.lines(), expected);
}

TEST_F(RegistryKeyTest, NamesTheValueThatIsNotThere) {
    m_value.removeValue();
    EXPECT_EQ(text(), "left alone");
    EXPECT_FALSE(m_result);
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{"WARN NS_UTL::RegistryKey::getValue(v) - error 2"}));
}

TEST_F(RegistryKeyTest, IgnoresTheCaseOfNames) {
    m_value.set(RegType::Sz, std::string("x\0", 2));
    RegistryKey key;
    ASSERT_TRUE(key.open("software\\QUORKERI TESTS\\key"));
    std::string out;
    EXPECT_TRUE(key.getValue("V", out));
    EXPECT_EQ(out, "x");
}

TEST_F(RegistryKeyTest, NeedsTheHeapOnlyBeyondTheFirstGuess) {
    for (const size_t size : {15U, 16U, 17U}) {
        m_value.set(RegType::Sz, std::string(size, 'x'));
        RegistryKey key;
        ASSERT_TRUE(key.open(kSubKey));
        char here = 0;
        EXPECT_TRUE(key.getValue("v", [&](const uint8_t* bytes, uint32_t) {
            // Whether the bytes lie near this frame says where they are. A sanitizer that watches for returned locals
            // spreads frames over up to 100 MiB, all of it far from the heap.
            const intptr_t nearby = sizeof(void*) == 8 ? 1 << 30 : 65536;
            const auto distance = reinterpret_cast<intptr_t>(bytes) - reinterpret_cast<intptr_t>(&here);
            EXPECT_EQ(distance > -nearby && distance < nearby, size <= 16) << size;
            return true;
        }));
    }
}

TEST_F(RegistryKeyTest, AnswersWhatTheConsumerAnswersAndCallsItOnce) {
    m_value.set(RegType::Sz, std::string("a value longer than the first guess\0", 36));
    RegistryKey key;
    ASSERT_TRUE(key.open(kSubKey));
    int calls = 0;
    EXPECT_FALSE(key.getValue("v", [&](const uint8_t*, uint32_t) {
        ++calls;
        return false;
    }));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(m_log.lines().empty());
}

} // namespace
