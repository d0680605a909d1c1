#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_fileutils.h"

// A directory whose files copies and renames take by their names in it.
struct FileUtilsTest : testing::Test {
    using Lines = std::vector<std::string>;

    void put(const std::string& name, const std::string& bytes) const {
        test::writeFile(test::fromText(dir.file(name)), bytes);
    }
    std::string bytes(const std::string& name) const { return test::readFile(test::fromText(dir.file(name))); }
    bool exists(const std::string& name) const { return std::filesystem::exists(dir.path() / name); }

    // What a copy logs: nothing when it succeeds.
    Lines copy(const std::string& source = "source", const std::string& destination = "destination") const {
        const test::LogRecorder log;
        const bool isCopied = NS_UTL::FileUtils::copy(dir.file(source), dir.file(destination));
        EXPECT_EQ(isCopied, log.lines().empty());
        return log.lines();
    }
    Lines failedOpening(const std::string& name, const std::string& purpose) const {
        return {"WARN UTL::FileUtils::copy - failed opening '" + dir.file(name) + "' for " + purpose};
    }

    // Renames "from" to "to", and expects them there or as they were; the log's record behind "failed : ", empty when
    // it succeeds.
    std::string rename() const {
        const test::LogRecorder log;
        const std::string before = bytes("from");
        const bool isRenamed = NS_UTL::FileUtils::renameFile(dir.file("from"), dir.file("to"));
        EXPECT_EQ(exists("from"), !isRenamed);
        EXPECT_EQ(bytes(isRenamed ? "to" : "from"), before);
        EXPECT_EQ(log.lines().size(), isRenamed ? 0U : 1U);
        if (log.lines().empty()) return "";
        const std::string begin =
            "INFO NS_UTL::FileUtils::renameFile - '" + dir.file("from") + "'=>'" + dir.file("to") + "' failed : ";
        EXPECT_TRUE(log.lines()[0].starts_with(begin)) << log.lines()[0];
        return log.lines()[0].substr(begin.size());
    }

    test::TempDir dir;
};
using Copy = FileUtilsTest;
using RenameFile = FileUtilsTest;
