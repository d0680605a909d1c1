#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/child.h"

namespace test {

std::string thisProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

int runAndWait(const std::string& commandLine) {
    const int status = std::system(commandLine.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace test
