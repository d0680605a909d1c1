#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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
        std::ifstream in(m_dir.path() / "report", std::ios::binary);
        Report report;
        std::string line;
        std::getline(in, report.result);
        std::getline(in, report.filename);
        std::getline(in, line);
        report.workingDirectory = test::fromText(line);
        while (std::getline(in, line)) report.log.push_back(line);
        return report;
    }

    test::TempDir m_dir;
};

} // namespace NS_CORE
