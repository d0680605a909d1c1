#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "tests/support/temp_dir.h"
#include "utl/utl_file.h"
#include "utl/utl_fileutils.h"

namespace {

std::atomic<int> g_commits{0};

} // namespace

// In the place of the C library's, for the whole test program.
extern "C" int fsync(int fd) {
    ++g_commits;
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace NS_UTL {
namespace {

int commitsDuring(uint32_t flags) {
    const test::TempDir dir;
    const int before = g_commits;
    File file;
    EXPECT_TRUE(file.openFile(dir.file("file"), flags));
    EXPECT_EQ(file.writeFrom("x", 1), 1);
    EXPECT_EQ(file.writeFrom("y", 1), 1);
    file.close();
    return g_commits - before;
}

TEST(FileLinux, CommitsAsItsFlagsSay) {
    EXPECT_EQ(commitsDuring(File::Write | File::Create), 0);
    EXPECT_EQ(commitsDuring(File::kLogFileFlags), 1);
    EXPECT_EQ(commitsDuring(File::Write | File::Create | File::CommitOnWrite), 2);
    EXPECT_EQ(commitsDuring(File::Write | File::Create | File::CommitOnWrite | File::CommitOnClose), 3);
    const test::TempDir dir;
    const int before = g_commits;
    {
        File file;
        EXPECT_TRUE(file.openFile(dir.file("file")));
    }
    EXPECT_EQ(g_commits - before, 1) << "the object's end is a close";
}

TEST(CopyLinux, CommitsNothingToTheDisk) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "bytes");
    const int before = g_commits;
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(g_commits, before);
}

TEST(FileLinux, TheSizeOfADescriptorThatIsGoneCannotBeTold) {
    const test::TempDir dir;
    File file;
    ASSERT_TRUE(file.openFile(dir.file("file")));
    ASSERT_EQ(::close(file.descriptor()), 0);
    EXPECT_EQ(file.size(), -1);
    file.setDescriptor(File::Descriptor::Borrowed);
}

} // namespace
} // namespace NS_UTL
