#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_regfile.h"

using NS_UTL::RegFile;

TEST(RegFile, NamesTheFileThatCannotBeRead) {
    const test::TempDir dir;
    test::LogRecorder log;
    RegFile registry;
    EXPECT_FALSE(registry.load(dir.file("")));
    EXPECT_EQ(errno, EISDIR);
    test::writeFile(dir.path() / "file", "");
    EXPECT_FALSE(registry.load(dir.file("file/a.reg")));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(registry.load("/dev/zero"));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "WARN UTL::RegFile::load - failed reading '" + dir.file("") + "': Is a directory",
                  "WARN UTL::RegFile::load - failed reading '" + dir.file("file/a.reg") + "': Not a directory",
                  "WARN UTL::RegFile::load - failed reading '/dev/zero': File too large"}));
}
