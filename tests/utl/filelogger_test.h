#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/stamp.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_filelogger.h"

// A FileLogger that is installed in the logger and writes into a directory of the test's own.
struct FileLoggerTest : testing::Test {
    ~FileLoggerTest() override { NS_CORE::MasterLogger::setImplementation(nullptr); }

    void install(uint32_t maxSize, uint32_t keep) {
        NS_CORE::MasterLogger::setImplementation(
            std::make_unique<NS_UTL::FileLogger>(directory(), "service.log", maxSize, keep));
    }

    std::string directory() const { return test::utf8(dir.path()); }

    std::string log() const { return directory() + "/service.log"; }

    // One record with that text, at INFO.
    static void say(const std::string& text) { NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Info, text); }

    // What is printed when the file cannot be opened or written; and the beginning of it when it cannot be renamed.
    std::string openFailure(const std::string& file) const {
        return test::refusedRecord("WARN",
                                   "UTL::File::openFile - File:openFile(" + file + ",167,384) - failed opening");
    }
    std::string openFailure() const { return openFailure(log()); }
    std::string writeFailure(size_t length, int error) const {
        return test::refusedRecord("WARN", "UTL::File::writeFrom - File(" + log() + "):writeFrom - failed writing " +
                                               std::to_string(length) + " bytes with error " + std::to_string(error) +
                                               ":" + std::strerror(error));
    }
    static std::string renameFailure(const std::string& from, const std::string& to) {
        return test::beginOfRefusedRecord("INFO",
                                          "NS_UTL::FileUtils::renameFile - '" + from + "'=>'" + to + "' failed : ");
    }

    // Fails the test unless the one failed check says that the file could not become the old one.
    void expectRenameCheck() const {
        EXPECT_EQ(hook.single().message, "failed renaming " + log() + " to " + log() + ".old");
    }

    // The lines of a file without their stamps; fails the test for any line that is not whole.
    static std::vector<std::string> texts(const std::string& file) {
        const std::string bytes = test::readFile(test::fromText(file));
        std::vector<std::string> all;
        for (size_t begin = 0; begin < bytes.size();) {
            const size_t end = bytes.find('\n', begin);
            const std::string line = bytes.substr(begin, end - begin);
            EXPECT_NE(end, std::string::npos) << "torn: " << line;
            EXPECT_NE(test::stampLength(line), 0U) << line;
            all.push_back(line.substr(test::stampLength(line)));
            begin = end == std::string::npos ? bytes.size() : end + 1;
        }
        return all;
    }

    test::TempDir dir;
    test::HookRecorder hook;
};
