#include "utl/utl_registry.h"
#include "utl/utl_regtype.h"

#include <gtest/gtest.h>

#include "core/text/core_varargs.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/registry_value.h"
#include "tests/support/temp_dir.h"

using NS_UTL::RegistryKey;
namespace RegType = NS_UTL::RegType;

namespace {

const std::string kSubKey = "SOFTWARE\\Quorkeri tests\\Key";

void expectCheck(const test::HookRecorder& hook) {
    const test::FailedCheck check = hook.single();
    EXPECT_EQ(check.expression, "CHECKF");
    EXPECT_EQ(check.file, "utl_registry");
    EXPECT_EQ(check.level, 0);
    EXPECT_EQ(check.message, "");
}

class RegistryKeyTest : public testing::Test {
protected:
    RegistryKeyTest() { std::filesystem::current_path(m_dir.path()); }
    ~RegistryKeyTest() override { std::filesystem::current_path(m_before); }

    // The value as stored, through a key opened for it.
    std::string storedBytes(const std::string& name = "v") {
        RegistryKey key;
        EXPECT_TRUE(key.open(kSubKey));
        std::string all = "the consumer was not called";
        EXPECT_TRUE(key.getValue(name, [&](const uint8_t* bytes, uint32_t count) {
            all.assign(reinterpret_cast<const char*>(bytes), count);
            return true;
        }));
        return all;
    }

    std::string text(const std::string& name = "v") {
        RegistryKey key;
        EXPECT_TRUE(key.open(kSubKey));
        std::string out = "left alone";
        m_result = key.getValue(name, out);
        return out;
    }

private:
    std::filesystem::path m_before = std::filesystem::current_path();
    test::TempDir m_dir;

protected:
    test::RegistryValue m_value{kSubKey, "v", m_dir.path()};
    test::LogRecorder m_log;
    bool m_result = false;
};

} // namespace

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

TEST_F(RegistryKeyTest, ReadsTextOfEveryLengthAroundTheFirstGuess) {
    for (const size_t size : {1U, 2U, 14U, 15U, 16U, 17U, 18U, 32U, 33U, 1000U, 100000U}) {
        // `size` bytes in all, the terminator among them.
        std::string expected;
        for (size_t i = 0; i + 1 < size; ++i) expected += static_cast<char>('a' + i % 26);
        m_value.set(RegType::Sz, expected + '\0');
        EXPECT_EQ(storedBytes(), expected + '\0') << size;
        EXPECT_EQ(text(), expected) << size;
        EXPECT_TRUE(m_result);
    }
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RegistryKeyTest, KeepsTheLastCharacterOfTextWithoutATerminator) {
    for (const size_t size : {1U, 15U, 16U, 17U, 1000U}) {
        const std::string expected(size, 'x');
        m_value.set(RegType::Sz, expected);
        EXPECT_EQ(storedBytes(), expected);
        EXPECT_EQ(text(), expected);
    }
}

TEST_F(RegistryKeyTest, RemovesOneTerminatorOnly) {
    m_value.set(RegType::Sz, std::string("C:\\Keri\0\0", 9));
    EXPECT_EQ(text(), std::string("C:\\Keri\0", 8));
    m_value.set(RegType::Sz, std::string("a\0b\0", 4));
    EXPECT_EQ(text(), std::string("a\0b", 3));
}

TEST_F(RegistryKeyTest, KeepsATrailingBackslash) {
    m_value.set(RegType::Sz, std::string("C:\\Keri\\\0", 9));
    EXPECT_EQ(text(), "C:\\Keri\\");
}

TEST_F(RegistryKeyTest, ReadsEmptyText) {
    m_value.set(RegType::Sz, std::string("\0", 1));
    EXPECT_EQ(text(), "");
    EXPECT_TRUE(m_result);
}

TEST_F(RegistryKeyTest, TakesAValueOfNoBytesForMisuse) {
    m_value.set(RegType::Sz, "");
    const test::HookRecorder hook;
    EXPECT_EQ(text(), "left alone");
    EXPECT_FALSE(m_result);
    expectCheck(hook);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RegistryKeyTest, HandsOutTextAsUtf8) {
    const std::string expected = "C:\\Ж é 測試 \xf0\x9f\x94\x91";
    m_value.set(RegType::Sz, expected + '\0');
    EXPECT_EQ(text(), expected);
}

TEST_F(RegistryKeyTest, RefusesEveryOtherType) {
    const std::string prefix = "WARN NS_UTL::RegistryKey::getValue(v) - type=";
    m_value.set(RegType::ExpandSz, std::string("%ProgramFiles%\\Keri\0", 20));
    EXPECT_EQ(text(), "left alone");
    EXPECT_FALSE(m_result);
    m_value.set(RegType::Dword, std::string("\x2a\0\0\0", 4));
    EXPECT_EQ(text(), "left alone");
    EXPECT_FALSE(m_result);
    m_value.set(RegType::MultiSz, std::string("a\0\0", 3));
    text();
    m_value.set(RegType::Binary, std::string(1000, 'x'));
    text();
    m_value.set(RegType::None, "");
    text();
    m_value.set(12345, "x");
    text();
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{prefix + "2 expected 1", prefix + "4 expected 1",
                                                       prefix + "7 expected 1", prefix + "3 expected 1",
                                                       prefix + "0 expected 1", prefix + "12345 expected 1"}));
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

TEST_F(RegistryKeyTest, NeedsTheHeapOnlyBeyondTheFirstGuess) {
    // Whether the bytes lie near this frame says where they are.
    const auto onStack = [this](size_t size) {
        m_value.set(RegType::Sz, std::string(size, 'x'));
        RegistryKey key;
        EXPECT_TRUE(key.open(kSubKey));
        char here = 0;
        bool near = false;
        EXPECT_TRUE(key.getValue("v", [&](const uint8_t* bytes, uint32_t) {
            const auto distance = reinterpret_cast<intptr_t>(bytes) - reinterpret_cast<intptr_t>(&here);
            near = distance > -65536 && distance < 65536;
            return true;
        }));
        return near;
    };
    EXPECT_TRUE(onStack(15));
    EXPECT_TRUE(onStack(16));
    EXPECT_FALSE(onStack(17));
}
