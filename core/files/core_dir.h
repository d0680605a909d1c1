#pragma once

#include <string>

namespace NS_CORE {

// Where the running executable lies, and the process's working directory. The service works relative to its own
// installation, not to the directory that the service control manager starts it in.
//
// Paths are UTF-8; they are separated by '\' on Windows and by '/' on Linux, and only that character counts as a
// separator here. Failures are logged at WARN where they happen, unless stated otherwise; outputs keep their value
// after a failure. Every call may be made from any thread, but the working directory is the whole process's.
class Dir {
public:
    // The executable's full path. False when it has 1024 characters or more ("buffer to small"). If the system does not
    // give the path, `out` becomes empty and the result is true; getModuleDir then fails its check.
    [[nodiscard]] static bool getModuleFilename(std::string& out);

    // The executable's directory, without a separator at its end. A path without a separator fails a CHECKF whose
    // message is that path, and the result is false.
    [[nodiscard]] static bool getModuleDir(std::string& out);

    [[nodiscard]] static bool setCurrentDir(const std::string& path);

    // Makes the executable's directory, less the `suffix` that it ends with, the working directory: "bin" leads from
    // C:\svc\bin to C:\svc\ . Bytes are compared, so case matters. False, with the working directory left alone, when
    // the directory ends otherwise.
    // Throws std::out_of_range when the directory's path is shorter than the suffix.
    [[nodiscard]] static bool setCurrentDirRelativeToModuleDir(const std::string& suffix);
};

} // namespace NS_CORE
