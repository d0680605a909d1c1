#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>
#include <utility>

#include "tests/support/child.h"

namespace test {
namespace {

std::filesystem::path parentDirectory(TempDir::Where where) {
    if (where == TempDir::Where::Memory) {
        // The second is what Wine calls the first.
        for (const char* memory : {"/dev/shm", "Z:/dev/shm"}) {
            std::error_code error;
            if (std::filesystem::is_directory(memory, error)) return memory;
        }
    }
    return std::filesystem::temp_directory_path();
}

} // namespace

std::string utf8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

std::filesystem::path fromText(const std::string& text) {
    return std::u8string(text.begin(), text.end());
}

TempDir::TempDir(Where where) {
    std::random_device random;
    m_path = parentDirectory(where) / ("quorkeri-" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(m_path);
}

TempDir::~TempDir() {
    // A test may have taken rights away from what it made.
    std::error_code error;
    const std::filesystem::recursive_directory_iterator end;
    for (std::filesystem::recursive_directory_iterator entry(m_path, error); !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (!entry->is_symlink(ignored))
            std::filesystem::permissions(entry->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ignored);
    }
    std::filesystem::remove_all(m_path, error);
}

std::string TempDir::file(const std::string& name) const {
    return utf8(m_path / fromText(name));
}

std::filesystem::path builtFile(const std::string& path) {
    const std::filesystem::path built = fromText(path);
    const std::filesystem::path carried = fromText(thisProgram()).parent_path() / "files" / built.filename();
    std::error_code error;
    return std::filesystem::exists(carried, error) ? carried : built;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << path;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return std::move(bytes).str();
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    EXPECT_TRUE(out.good()) << path;
}

} // namespace test
