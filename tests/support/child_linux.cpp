#include <filesystem>

#include "tests/support/child.h"

namespace test {

std::string thisProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

} // namespace test
