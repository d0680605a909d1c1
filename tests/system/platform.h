#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/system/await.h"

// What the tests of the whole program need of the operating system; one source per platform. Failures throw, so that a
// test ends with the reason. Texts are UTF-8.
namespace test {

// The system's message for one of its error codes, as the system gives it.
std::string systemText(uint32_t code);

// What the log shows after "failed to start '...': " when the file is no program.
std::string notAProgramText();

// The processes of an installation are ended by their ids, and only when the running program really lies below `root`,
// because an id may have been given to somebody else meanwhile.
void endProcess(uint32_t processId, const std::filesystem::path& root);
bool processRuns(uint32_t processId, const std::filesystem::path& root);

// Ends, by their ids, all processes whose program lies below `root`, until there is none: one that was about to start
// another may leave it behind. Throws when one stays.
void endProcessesBelow(const std::filesystem::path& root);

// Writes the Keri software's entry: its install location as a string value (Windows: the real registry, where a 32-bit
// set-up program's entry lies; Linux: settings/registry.reg below the installation's root).
void registerKeri(const std::filesystem::path& root, const std::string& location);
void unregisterKeri(const std::filesystem::path& root);

// A program that was started from here, in the root directory of the file system so that a wrong working directory
// shows; its two output streams go to a file. Ended with the object if it still runs.
class Process {
public:
    // The program inherits everything of this process that can be inherited.
    Process(const std::filesystem::path& program, const std::vector<std::string>& words,
            const std::filesystem::path& output);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    uint32_t id() const { return m_id; }

    // The exit code; minus the signal's number when a signal ended the program. Nothing when it still runs after the
    // limit.
    std::optional<int64_t> awaitExit(std::chrono::milliseconds limit = kLimit);

    void end();

private:
    uint32_t m_id = 0;
    intptr_t m_handle = 0;
    std::optional<int64_t> m_exitCode;
};

// Makes the reader of an installation's first library wait, so that a test can act in the middle of the deployment.
// Registers an install location of its own; only the first library is there. Windows: a named pipe; Linux: a FIFO.
class HeldDeployment {
public:
    explicit HeldDeployment(const std::filesystem::path& root);
    ~HeldDeployment();
    HeldDeployment(const HeldDeployment&) = delete;
    HeldDeployment& operator=(const HeldDeployment&) = delete;

    // Waits until the program has begun to read the library; throws when it does not.
    void awaitReader();

    // The library is read to its end: it is empty.
    void release();

private:
    std::filesystem::path m_root;
    intptr_t m_handle = -1;
};

} // namespace test
