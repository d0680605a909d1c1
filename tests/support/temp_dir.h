#pragma once

#include <filesystem>
#include <string>

namespace test {

// Convert between paths and their UTF-8 texts.
std::string utf8(const std::filesystem::path& path);
std::filesystem::path fromText(const std::string& text);

// A directory of the test's own, with all that is in it; gone when the object ends.
class TempDir {
public:
    // Memory spares tests that commit thousands of times the wait for the disk, where the machine has such a place.
    enum class Where { Disk, Memory };

    explicit TempDir(Where where = Where::Disk);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }

    // The UTF-8 path of `name` in it, as the system's own calls take paths.
    std::string file(const std::string& name) const;

private:
    std::filesystem::path m_path;
};

// The whole file, byte for byte; fails the test and is empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& bytes);

// A file that the build made for the tests, given by its path there. In the self-test, which travels without a build,
// it lies in "files" beside the test program.
std::filesystem::path builtFile(const std::string& path);

} // namespace test
