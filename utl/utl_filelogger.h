#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "core/log/core_v2masterlogger.h"

namespace NS_UTL {

// The log implementation that keeps records in a text file, one line each: "2019-11-20 20 14:49:57 text\n". The stamp
// is local time with the day of the month once more before the hours, as the readers of these files expect it.
//
// Every record opens the file, appends its line in one write, commits it to the disk and closes the file. So a crash
// loses no line that was logged, and between two records anyone may move, rename or delete the file; the next one
// starts a new file. It is not made for many records a second.
//
// A file that has grown above maxSize by a record, that record included, is rotated at once; one of exactly maxSize
// bytes is not. With keep 1, "name" becomes "name.old" and replaces the one before. With any other, "name.keep" down to
// "name.0" move up by one, "name" becomes "name.0", and what was pushed out to "name.(keep + 1)" is deleted: number
// 0 is the newest of keep + 1. A rename that fails leaves the file where it is, and it is tried again after the next
// record; so no line is lost, and the file grows.
//
// What can go wrong, in this order. The logger is busy with the record, so File's and FileUtils' own messages (WARN,
// INFO) appear on standard error. Each failed check stops the process if the failure handler says so.
//   the file cannot be opened     WARN of File, then a CHECKF with an empty message; the record is dropped
//   the write fails or is short   WARN of File on failure; the rest of the line is not tried again
//   "name" to "name.old" fails    INFO of FileUtils, then the CHECKF "failed renaming FROM to TO"
//   a numbered rename fails       INFO of FileUtils, then the CHECKF "FROM=>TO" (also for a number that is not there
//                                 yet); the others go on. "name" to "name.0": the CHECKF's message is the file's path
class FileLogger : public NS_CORE::LogImpl {
public:
    // directory  without a separator at its end; must exist, is not created. It and the name are UTF-8.
    // maxSize    bytes.
    FileLogger(std::string directory, std::string name, uint32_t maxSize, uint32_t keep);

    // Has no lock of its own: the logger's makes sure that calls do not overlap. Only the text is used.
    void log(uint32_t level, uint32_t threadNumber, const NS_CORE::LevelEntry& levelEntry, uint8_t implementationBits,
             const char* text, size_t textLength) override;

    // The stamp of a broken-down local time.
    static std::string stamp(const std::tm& localTime);

private:
    std::string path() const;
    std::string numbered(uint64_t number) const;
    void rotate() const;
    void rotateNumbered() const;

    const std::string m_directory;
    const std::string m_name;
    const uint32_t m_maxSize;
    const uint32_t m_keep;
};

} // namespace NS_UTL
