#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/self_process.h"

namespace test {

struct SelfProcess::Process {
    pid_t id = -1;
    int output = -1;
    bool ended = false;
    int64_t result = 0;
};

SelfProcess::SelfProcess(const std::string& childName, const std::vector<std::string>& arguments,
                         StandardError standardError)
    : m_process(std::make_unique<Process>()) {
    std::vector<std::string> words = {thisProgram(), kChildWord, childName};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    m_process->output = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    if (standardError == StandardError::WithOutput) posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    EXPECT_EQ(posix_spawn(&m_process->id, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
}

SelfProcess::~SelfProcess() {
    if (!m_process->ended) {
        kill();
        wait();
    }
    close(m_process->output);
}

std::string SelfProcess::read(size_t length) {
    std::string all;
    char buffer[4096];
    while (all.size() < length) {
        const ssize_t count = ::read(m_process->output, buffer, std::min(sizeof(buffer), length - all.size()));
        if (count <= 0) break;
        all.append(buffer, static_cast<size_t>(count));
    }
    return all;
}

void SelfProcess::kill() {
    ::kill(m_process->id, SIGKILL);
}

int64_t SelfProcess::wait() {
    if (m_process->ended) return m_process->result;
    int status = 0;
    EXPECT_EQ(waitpid(m_process->id, &status, 0), m_process->id);
    m_process->ended = true;
    m_process->result = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    return m_process->result;
}

} // namespace test
