#include "tests/service/deployment_surroundings.h"

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <set>

namespace test {
namespace {

bool g_hasOwnBin = false;

bool becomeNobody() {
    constexpr unsigned kNobody = 65534;
    return ::geteuid() != 0 || (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
}

bool mountSmallBin() {
    g_hasOwnBin = true;
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "bin", "tmpfs", 0, "size=1m") == 0;
}

bool limitFileSize() {
    // The write then fails instead of ending the process.
    if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR) return false;
    constexpr rlimit kLimit{256 * 1024, 256 * 1024};
    return ::setrlimit(RLIMIT_FSIZE, &kLimit) == 0;
}

} // namespace

bool enterSurroundings(const std::string& name) {
    if (name == "nobody") return becomeNobody();
    if (name == "full-disk") return mountSmallBin();
    if (name == "small-files") return limitFileSize();
    return false;
}

std::string describeSurroundings() {
    if (!g_hasOwnBin) return {};
    std::set<std::string> lines;
    for (const auto& entry : std::filesystem::directory_iterator("bin"))
        lines.insert("BIN " + entry.path().filename().string() + ": " + std::to_string(entry.file_size()) + '\n');
    std::string text;
    for (const std::string& line : lines) text += line;
    return text;
}

} // namespace test
