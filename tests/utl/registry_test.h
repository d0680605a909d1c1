#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/log_recorder.h"
#include "tests/support/registry_value.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_registry.h"

inline const std::string kSubKey = "SOFTWARE\\Quorkeri tests\\Key";

// A key below kSubKey, with a value "v".
class RegistryKeyTest : public testing::Test {
protected:
    RegistryKeyTest() { std::filesystem::current_path(m_dir.path()); }
    ~RegistryKeyTest() override { std::filesystem::current_path(m_before); }

    // The value as stored, through a key opened for it.
    std::string storedBytes() {
        NS_UTL::RegistryKey key;
        EXPECT_TRUE(key.open(kSubKey));
        std::string all = "the consumer was not called";
        EXPECT_TRUE(key.getValue("v", [&](const uint8_t* bytes, uint32_t count) {
            all.assign(reinterpret_cast<const char*>(bytes), count);
            return true;
        }));
        return all;
    }

    std::string text() {
        NS_UTL::RegistryKey key;
        EXPECT_TRUE(key.open(kSubKey));
        std::string out = "left alone";
        m_result = key.getValue("v", out);
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
