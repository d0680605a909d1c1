#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_filelogger.h"

// A FileLogger that is installed in the logger and writes into a directory of the test's own.
struct FileLoggerTest : testing::Test {
    ~FileLoggerTest() override { NS_CORE::MasterLogger::setImplementation(nullptr); }

    void install(uint32_t maxSize, uint32_t keep) {
        NS_CORE::MasterLogger::setImplementation(
            std::make_unique<NS_UTL::FileLogger>(directory(), "service.log", maxSize, keep));
    }

    std::string directory() const {
        const std::u8string text = dir.path().u8string();
        return {text.begin(), text.end()};
    }

    std::string log() const { return directory() + "/service.log"; }

    // One record with that text, at INFO.
    static void say(const std::string& text) { NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Info, text); }

    // Whether a line begins as in "2019-11-20 20 14:49:57 ", with the day twice.
    static bool isStamped(const std::string& line) {
        constexpr std::string_view shape = "dddd-dd-dd dd dd:dd:dd ";
        const auto fits = [](char inShape, char inLine) {
            return inShape == 'd' ? inLine >= '0' && inLine <= '9' : inShape == inLine;
        };
        return line.size() >= shape.size() && std::equal(shape.begin(), shape.end(), line.begin(), fits) &&
               line.substr(8, 2) == line.substr(11, 2);
    }

    // The lines of a file without their stamps; fails the test for any line that is not whole.
    static std::vector<std::string> texts(const std::string& file) {
        const std::string bytes = test::readFile(std::u8string(file.begin(), file.end()));
        std::vector<std::string> all;
        for (size_t begin = 0; begin < bytes.size();) {
            const size_t end = bytes.find('\n', begin);
            const std::string line = bytes.substr(begin, end - begin);
            EXPECT_NE(end, std::string::npos) << "torn: " << line;
            EXPECT_TRUE(isStamped(line)) << line;
            all.push_back(line.substr(std::min<size_t>(line.size(), 23)));
            begin = end == std::string::npos ? bytes.size() : end + 1;
        }
        return all;
    }

    test::TempDir dir;
    test::HookRecorder hook;
};
