#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/files/core_dir.h"
#include "core/text/core_varargs.h"
#include "utl/utl_commandline.h"
#include "utl/utl_processutils_platform.h"

namespace NS_UTL::processutils_platform {
namespace {

constexpr int kSignalExitCodeBase = 128;

class SpawnAttributes {
public:
    SpawnAttributes() { ::posix_spawnattr_init(&m_attributes); }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&m_attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    // Its own session, without a terminal; no signal blocked, none ignored.
    void detach() {
        sigset_t all;
        ::sigfillset(&all);
        ::posix_spawnattr_setsigdefault(&m_attributes, &all);
        // The mask that it sets is the attributes' own, in which no signal is at first.
        ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    const posix_spawnattr_t* get() const { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes;
};

class SpawnFileActions {
public:
    SpawnFileActions() { ::posix_spawn_file_actions_init(&m_actions); }
    ~SpawnFileActions() { ::posix_spawn_file_actions_destroy(&m_actions); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;

    // The standard streams are /dev/null, and nothing else is open. Returns an error number or 0.
    int inheritNothing() {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            const int error = ::posix_spawn_file_actions_addopen(&m_actions, stream, "/dev/null", O_RDWR, /*mode=*/0);
            if (error != 0) return error;
        }
        return ::posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1);
    }
    const posix_spawn_file_actions_t* get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

// The directories in which a program without one is looked for, in order.
std::vector<std::string> programDirectories() {
    std::vector<std::string> directories;
    std::string moduleDir;
    if (NS_CORE::Dir::getModuleDir(moduleDir)) directories.push_back(moduleDir);
    directories.emplace_back(".");
    const char* const path = std::getenv("PATH");
    std::string_view rest = path ? path : "";
    while (!rest.empty()) {
        const std::string_view directory = rest.substr(0, rest.find(':'));
        rest.remove_prefix(std::min(directory.size() + 1, rest.size()));
        directories.emplace_back(directory.empty() ? "." : directory);
    }
    return directories;
}

// Returns the first file of that name, even if it is not a program: a damaged companion beside the executable must not
// make the search go on to PATH. Empty when there is none.
std::string findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    for (const std::string& directory : programDirectories()) {
        const std::string candidate = NS_CORE::formatString("%s/%s", directory, name);
        std::error_code error;
        const std::filesystem::file_status status = std::filesystem::status(candidate, error);
        if (std::filesystem::exists(status) && !std::filesystem::is_directory(status)) return candidate;
    }
    return {};
}

// Returns 0 and stores the process's id, or returns an error number. If the new process cannot run the program,
// posix_spawn returns that error and reaps the process, so a failed start is never taken for the program's own end.
int launch(const char* commandLine, pid_t& child) {
    std::vector<std::string> words = splitCommandLine(commandLine);
    if (words.empty()) return ENOENT;
    const std::string program = findProgram(words.front());
    if (program.empty()) return ENOENT;

    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);

    SpawnAttributes attributes;
    attributes.detach();
    SpawnFileActions fileActions;
    const int error = fileActions.inheritNothing();
    if (error != 0) return error;
    return ::posix_spawn(&child, program.c_str(), fileActions.get(), attributes.get(), arguments.data(), environ);
}

} // namespace

ProcessUtils::Result startAndWait(const char* commandLine, unsigned long& exitCode, uint32_t& systemError) {
    pid_t child = -1;
    systemError = static_cast<uint32_t>(launch(commandLine, child));
    if (systemError != 0) return ProcessUtils::Result::StartFailed;

    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(child, &status, /*options=*/0);
    } while (ended == -1 && errno == EINTR);
    // The system keeps no exit code for a process that ignores SIGCHLD.
    if (ended == -1) return ProcessUtils::Result::NoExitCode;
    exitCode =
        static_cast<unsigned long>(WIFSIGNALED(status) ? kSignalExitCodeBase + WTERMSIG(status) : WEXITSTATUS(status));
    return ProcessUtils::Result::Finished;
}

} // namespace NS_UTL::processutils_platform
