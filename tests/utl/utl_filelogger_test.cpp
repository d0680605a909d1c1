#include "utl/utl_filelogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/check/core_assert.h"
#include "core/log/core_v2masterlogger.h"
#include "core/time/core_time.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/stream_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/time_zone.h"
#include "tests/utl/filelogger_test.h"

namespace fs = std::filesystem;

using NS_CORE::MasterLogger;
using NS_UTL::FileLogger;
using test::FailedCheck;
using test::printedBy;
using test::readFile;
using test::SelfProcess;
using test::writeFile;

namespace {

using Lines = std::vector<std::string>;

constexpr size_t kStampLength = 22; // 2019-11-20 20 14:49:57

// A text whose line has that many bytes.
std::string textOfLine(size_t length) {
    return std::string(length - kStampLength - 2, 'x');
}

TEST(FileLoggerStamp, HasTheDayOfTheMonthTwice) {
    test::setTimeZone("UTC0");
    EXPECT_EQ(FileLogger::stamp(NS_CORE::localTimeOf(1'709'622'489)), "2024-03-05 05 07:08:09");
    EXPECT_EQ(FileLogger::stamp(NS_CORE::localTimeOf(1'574'261'397)), "2019-11-20 20 14:49:57");
}

TEST_F(FileLoggerTest, WritesOneStampedLinePerRecord) {
    test::setTimeZone("XXX-5:30");
    install(5000000, 1);
    const int32_t before = NS_CORE::systemNow().seconds;
    say("Running");
    MLOG(Warn, "A::b", "%s", "50% (x)");
    const int32_t after = NS_CORE::systemNow().seconds;

    const std::string bytes = readFile(log());
    EXPECT_EQ(bytes.find('\r'), std::string::npos);
    ASSERT_EQ(texts(log()), (Lines{"Running", "A::b - 50% (x)"}));
    bool stampFits = false;
    for (int32_t seconds = before; seconds <= after; ++seconds)
        stampFits |= bytes.starts_with(FileLogger::stamp(NS_CORE::localTimeOf(seconds)) + " Running\n");
    EXPECT_TRUE(stampFits) << bytes;
}

TEST_F(FileLoggerTest, WritesTheTextAsItIs) {
    install(UINT32_MAX, 1);
    const std::string odd("two\nlines\0NUL %s \xc3\xa9", 20);
    say("");
    say(odd);
    say(std::string(1 << 20, 'y'));
    const std::string bytes = readFile(log());
    EXPECT_EQ(bytes.substr(kStampLength, 2), " \n");
    EXPECT_EQ(bytes.substr(2 * kStampLength + 3, odd.size() + 1), odd + "\n");
    EXPECT_EQ(bytes.size(), 3 * (kStampLength + 2) + odd.size() + (1 << 20));
}

// With the service's own settings, at the boundary.
struct BoundaryTest : FileLoggerTest, testing::WithParamInterface<size_t> {};

TEST_P(BoundaryTest, IsRotatedAboveItAndNotAtIt) {
    constexpr uint32_t kMaxSize = 5000000;
    const size_t size = GetParam();
    const std::string before(size - 100, 'b');
    writeFile(log(), before);
    writeFile(log() + ".old", "the one before");
    install(kMaxSize, 1);
    say(textOfLine(100));

    const bool rotated = size > kMaxSize;
    const std::string file = rotated ? log() + ".old" : log();
    EXPECT_EQ(fs::file_size(file), size);
    const std::string bytes = readFile(file);
    EXPECT_TRUE(bytes.starts_with(before));
    EXPECT_TRUE(bytes.ends_with(textOfLine(100) + "\n"));
    EXPECT_EQ(fs::exists(log()), !rotated);
    if (!rotated) {
        EXPECT_EQ(readFile(log() + ".old"), "the one before");
    }
    say("next");
    if (rotated) {
        EXPECT_EQ(texts(log()), Lines{"next"});
    } else {
        EXPECT_TRUE(readFile(log() + ".old").ends_with(" next\n")) << "this line took it above";
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, BoundaryTest, testing::Values(4999999, 5000000, 5000001));

TEST_F(FileLoggerTest, KeepsOneNumberMoreThanItIsTold) {
    const auto line = [](uint32_t rotation) { return std::string(100, static_cast<char>('a' + rotation)); };
    for (const uint32_t keep : {0U, 3U, 11U}) {
        for (const auto& entry : fs::directory_iterator(dir.path())) fs::remove(entry);
        hook.clear();
        install(100, keep);
        const uint32_t rotations = keep + 3;
        for (uint32_t i = 0; i < rotations; ++i) {
            printedBy([&] { say(line(i)); });
            // Each rotation finds one number more, until all are there.
            const uint32_t found = std::min(i, keep + 1);
            EXPECT_EQ(hook.failures().size(), keep + 1 - found) << keep << ", rotation " << i;
            hook.clear();
        }
        say("current");
        EXPECT_EQ(texts(log()), Lines{"current"});
        for (uint32_t number = 0; number <= keep; ++number)
            EXPECT_EQ(texts(log() + "." + std::to_string(number)), Lines{line(rotations - 1 - number)});
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), keep + 2);
    }
}

TEST_F(FileLoggerTest, BeginsAtTheHighestNumberThatThereIs) {
    FileLogger logger(directory(), "service.log", 10, UINT32_MAX);
    // Not all four thousand millions.
    NS_CORE::Assert::installFailureHandler(
        [](const char*, std::string_view, int32_t, int32_t, const std::string& message) -> bool { throw message; });
    try {
        logger.log(3, 0, MasterLogger::levelEntry(3), 4, "kept", 4);
        ADD_FAILURE() << "nothing to rename";
    } catch (const std::string& message) {
        EXPECT_EQ(message, log() + ".4294967295=>" + log() + ".4294967296");
    }
    EXPECT_EQ(texts(log()), Lines{"kept"});
}

TEST_F(FileLoggerTest, GoesOnShiftingWhenANumberIsStuck) {
    install(100, 3);
    // A directory with something in it gives way to nothing.
    for (const char* number : {".0", ".1", ".2", ".3", ".4"}) fs::create_directories(log() + number + "/stuck");
    printedBy([] { say(textOfLine(101)); });
    Lines messages;
    for (const FailedCheck& check : hook.failures()) messages.push_back(check.message);
    EXPECT_EQ(messages, (Lines{log() + ".3=>" + log() + ".4", log() + ".2=>" + log() + ".3",
                               log() + ".1=>" + log() + ".2", log() + ".0=>" + log() + ".1", log()}));
    EXPECT_EQ(texts(log()), Lines{textOfLine(101)});
    EXPECT_TRUE(fs::exists(log() + ".4/stuck")) << "no file to delete";
}

TEST_F(FileLoggerTest, GrowsAndTriesAgainWhileTheOldFileIsStuck) {
    install(100, 1);
    fs::create_directories(log() + ".old/stuck");
    const std::string text = textOfLine(101);
    for (size_t records = 1; records <= 3; ++records) {
        hook.clear();
        const std::string printed = printedBy([&] { say(text); }).error;
        expectRenameCheck();
        EXPECT_TRUE(printed.starts_with(renameFailure(log(), log() + ".old"))) << printed;
        EXPECT_EQ(texts(log()), Lines(records, text));
    }
    hook.clear();
    fs::remove_all(log() + ".old");
    say("last");
    EXPECT_EQ(texts(log() + ".old"), (Lines{text, text, text, "last"}));
}

TEST_F(FileLoggerTest, DropsRecordsWhileTheDirectoryIsMissing) {
    const std::string inner = dir.file("logs");
    const std::string file = inner + "/service.log";
    MasterLogger::setImplementation(std::make_unique<FileLogger>(inner, "service.log", 100, 1));
    const std::string printed = printedBy([] { say("lost"); }).error;
    EXPECT_EQ(printed, openFailure(file));
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "utl_filelogger", hook.single().line, 0, ""}));
    fs::create_directory(inner);
    say("found");
    EXPECT_EQ(texts(file), Lines{"found"});
    EXPECT_EQ(hook.failures().size(), 1U);
}

TEST_F(FileLoggerTest, StartsAnewWhereTheFileWasDeletedOrMovedAway) {
    install(5000000, 1);
    say("1");
    fs::remove(log());
    say("2");
    EXPECT_EQ(texts(log()), Lines{"2"});
    fs::rename(log(), dir.file("elsewhere"));
    say("3");
    EXPECT_EQ(texts(log()), Lines{"3"});
    EXPECT_EQ(texts(dir.file("elsewhere")), Lines{"2"});
    // Cut to nothing, as some tools do it.
    writeFile(log(), "");
    say("4");
    EXPECT_EQ(texts(log()), Lines{"4"});
}

const test::ChildProgram g_stoppedByTheHook("FileLoggerWithoutDirectory", [](const auto& arguments) {
    test::HookRecorder hook;
    hook.answerStop(true);
    MasterLogger::setImplementation(std::make_unique<FileLogger>(arguments.at(0) + "/none", "service.log", 100, 1));
    FileLoggerTest::say("lost");
    return 0;
});

TEST_F(FileLoggerTest, EndsTheProcessWhereTheHookSaysStop) {
    SelfProcess child("FileLoggerWithoutDirectory", {directory()}, SelfProcess::StandardError::WithOutput);
    child.readAll();
    EXPECT_NE(child.wait(), 0);
}

// Logs a thousand records and writes one byte for each that the logger has taken.
const test::ChildProgram g_thousandRecords("ThousandRecords", [](const auto& arguments) {
    const test::HookRecorder hook;
    // The renames of numbers that are not there yet would only fill the test's output.
    MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Info, 0);
    MasterLogger::setImplementation(std::make_unique<FileLogger>(arguments.at(0), "service.log",
                                                                 static_cast<uint32_t>(std::stoul(arguments.at(1))),
                                                                 static_cast<uint32_t>(std::stoul(arguments.at(2)))));
    for (int i = 0; i < 1000; ++i) {
        MLOG(Warn, "R", "%d", i);
        std::fputc('.', stdout);
        std::fflush(stdout);
    }
    return 0;
});

struct KillTest : FileLoggerTest {
    // Kills the child once it has logged that many records, and compares what it was told with what is there.
    void killAfter(size_t records, uint32_t maxSize, uint32_t keep) {
        fs::remove_all(dir.path());
        fs::create_directory(dir.path());
        SelfProcess child("ThousandRecords", {directory(), std::to_string(maxSize), std::to_string(keep)});
        EXPECT_EQ(child.read(records).size(), records);
        child.kill();
        const size_t accepted = records + child.readAll().size();
        killed += child.wait() != 0;

        Lines found;
        for (uint32_t number = keep + 1; number > 0; --number) append(log() + "." + std::to_string(number - 1), &found);
        append(log(), &found);
        // The one that it was in the middle of may be there already, but not half of it.
        EXPECT_GE(found.size(), accepted);
        EXPECT_LE(found.size(), accepted + 1);
        for (size_t i = 0; i < found.size(); ++i) EXPECT_EQ(found[i], "R - " + std::to_string(i));
    }

    static void append(const std::string& file, Lines* found) {
        if (fs::exists(file)) std::ranges::copy(texts(file), std::back_inserter(*found));
    }

    int killed = 0; // children that had not ended by themselves
};

TEST_F(KillTest, LosesAndTearsNoRecordOfAKilledProcess) {
    for (const size_t records : {1U, 20U, 77U, 150U}) killAfter(records, 5000000, 1);
    // Around rotations: a file takes 36 records or so, and a thousand stay in 41 numbered files.
    for (const size_t records : {34U, 35U, 36U, 37U, 70U, 72U, 74U}) killAfter(records, 1000, 40);
    EXPECT_GT(killed, 0);
}

} // namespace
