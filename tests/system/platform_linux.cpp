#include "tests/system/platform.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>

#include "core/files/core_scopedfd.h"
#include "tests/support/temp_dir.h"
#include "tests/system/await.h"
#include "tests/system/installation.h"

namespace test {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// The stop port is fixed, and this machine may run something else on it. Where that is allowed, a test program has a
// network of its own, with nothing but the loopback; its children share it.
bool enterOwnNetwork() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    const NS_CORE::ScopedFd any(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    return ioctl(any.get(), SIOCSIFFLAGS, &request) == 0;
}

const bool g_hasOwnNetwork = enterOwnNetwork();

std::filesystem::path registryFile(const std::filesystem::path& root) {
    return root / "settings" / "registry.reg";
}

[[noreturn]] void runChild(const std::filesystem::path& program, const std::vector<std::string>& words, int output) {
    std::vector<std::string> copies{program.string()};
    copies.insert(copies.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (std::string& word : copies) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    if (dup2(output, STDOUT_FILENO) == -1 || dup2(output, STDERR_FILENO) == -1 || chdir("/") != 0) _exit(126);
    execv(program.c_str(), arguments.data());
    _exit(127);
}

// Nothing is left of it, or just what its parent may ask for.
bool hasGivenUpAll(uint32_t processId) {
    std::ifstream in("/proc/" + std::to_string(processId) + "/stat");
    const std::string stat{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const size_t state = stat.rfind(") ");
    return state == std::string::npos || stat[state + 2] == 'Z' || stat[state + 2] == 'X';
}

} // namespace

std::string systemText(uint32_t code) {
    return std::strerror(static_cast<int>(code));
}

std::string notAProgramText() {
    return systemText(ENOEXEC);
}

bool processRuns(uint32_t processId, const std::filesystem::path& root) {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/" + std::to_string(processId) + "/exe", error);
    return !error && program.string().starts_with(root.string());
}

void endProcess(uint32_t processId, const std::filesystem::path& root) {
    if (processRuns(processId, root)) ::kill(static_cast<pid_t>(processId), SIGKILL);
}

void endProcessesBelow(const std::filesystem::path& root) {
    // A killed process loses its program before it gives back its port.
    std::set<uint32_t> killed;
    const auto isNobodyLeft = [&] {
        bool isNone = std::ranges::all_of(killed, hasGivenUpAll);
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            const std::string name = entry.path().filename().string();
            if (name.find_first_not_of("0123456789") != std::string::npos) continue;
            const auto processId = static_cast<uint32_t>(std::stoul(name));
            if (!processRuns(processId, root)) continue;
            endProcess(processId, root);
            killed.insert(processId);
            isNone = false;
        }
        return isNone;
    };
    if (!await(isNobodyLeft)) throw std::runtime_error("a program cannot be ended");
}

void registerKeri(const std::filesystem::path& root, const std::string& location) {
    // The registry's own export escapes backslashes and quotes as std::quoted does.
    std::ostringstream quoted;
    quoted << std::quoted(location);
    writeFile(registryFile(root),
              "Windows Registry Editor Version 5.00\r\n\r\n"
              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
              "{28C70475-353F-47A1-BD2B-6219F4C7A0C6}]\r\n"
              "\"DisplayName\"=\"Keri\"\r\n"
              "\"InstallLocation\"=" +
                  quoted.str() + "\r\n");
}

void unregisterKeri(const std::filesystem::path& root) {
    std::error_code error;
    std::filesystem::remove(registryFile(root), error);
}

Process::Process(const std::filesystem::path& program, const std::vector<std::string>& words,
                 const std::filesystem::path& output) {
    const NS_CORE::ScopedFd file(::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!file) fail("open " + output.string());
    const pid_t child = fork();
    if (child == -1) fail("fork");
    if (child == 0) runChild(program, words, file.get());
    m_id = static_cast<uint32_t>(child);
}

Process::~Process() {
    end();
}

std::optional<int64_t> Process::awaitExit(std::chrono::milliseconds limit) {
    const auto hasEnded = [this] {
        if (m_exitCode) return true;
        int status = 0;
        if (waitpid(static_cast<pid_t>(m_id), &status, WNOHANG) != static_cast<pid_t>(m_id)) return false;
        m_exitCode = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
        return true;
    };
    static_cast<void>(await(hasEnded, limit));
    return m_exitCode;
}

void Process::end() {
    if (m_exitCode) return;
    ::kill(static_cast<pid_t>(m_id), SIGKILL);
    static_cast<void>(awaitExit());
}

HeldDeployment::HeldDeployment(const std::filesystem::path& root) : m_root(root) {
    const std::filesystem::path directory = root / "held";
    std::filesystem::create_directories(directory);
    if (mkfifo((directory / kLibraries.front()).c_str(), 0600) != 0) fail("mkfifo");
    registerKeri(root, pathText(directory));
}

HeldDeployment::~HeldDeployment() {
    if (m_handle != -1) ::close(static_cast<int>(m_handle));
}

void HeldDeployment::awaitReader() {
    const std::filesystem::path fifo = m_root / "held" / kLibraries.front();
    // Without waiting, a FIFO opens for writing only when somebody has it open for reading.
    const auto isRead = [&] {
        m_handle = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return m_handle != -1;
    };
    if (!await(isRead)) fail("nobody reads the held library");
}

void HeldDeployment::release() {
    ::close(static_cast<int>(m_handle));
    m_handle = -1;
}

} // namespace test
