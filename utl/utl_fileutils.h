#pragma once

#include <string>

namespace NS_UTL {

// Whole files. Paths are UTF-8. Failures are logged here; callers need not repeat them. Any thread; blocking.
class FileUtils {
public:
    // Copies a file's bytes onto `destination`, which is overwritten when it is there, and created with the rights 0600
    // when it is not. Nothing is committed to the disk. The copy ends at the first read that brings less than a full
    // buffer of 32768 bytes: for a regular file that is its end.
    // Returns false, and logs WARN, when something fails. If the destination was opened already, it is removed then,
    // even if it existed before, so that nobody takes half a file for a whole one. A file copied onto itself is
    // emptied.
    [[nodiscard]] static bool copy(const std::string& source, const std::string& destination);

    // Renames within a volume and replaces an existing `to`. False, logged at INFO, when the system refuses. A path
    // that is not UTF-8 fails a CHECKF of this unit's platform source whose message is that path.
    [[nodiscard]] static bool renameFile(const std::string& from, const std::string& to);
};

} // namespace NS_UTL
