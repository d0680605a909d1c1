#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "absl/strings/str_split.h"
#include "tests/support/child.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {

// A copy of the test program, to be run from where it lies.
class DirOfAnotherProgram : public testing::Test {
protected:
    struct Report {
        std::string result;
        std::string filename;
        std::filesystem::path workingDirectory;
        std::vector<std::string> log;
    };

    Report changeDirectory(const std::filesystem::path& program, const std::string& suffix) {
        std::filesystem::create_directories(program.parent_path());
        test::linkThisProgram(program);
        EXPECT_EQ(test::runAndWait(test::childCommandLineOf(test::utf8(program), "change-directory",
                                                            {m_dir.file("report"), suffix})),
                  0);
        const std::vector<std::string> lines =
            absl::StrSplit(test::readFile(m_dir.path() / "report"), '\n', absl::SkipEmpty());
        return {lines.at(0), lines.at(1), test::fromText(lines.at(2)), {lines.begin() + 3, lines.end()}};
    }

    test::TempDir m_dir;
};

} // namespace NS_CORE
