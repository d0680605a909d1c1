#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace test {

// This test program once more, running one ChildProgram (child.h), with its standard output coming through a pipe as
// raw bytes. Its standard error is the test's own, or goes the same way.
class SelfProcess {
public:
    enum class StandardError { Own, WithOutput };

    // The test fails when the child cannot be started.
    explicit SelfProcess(const std::string& childName, const std::vector<std::string>& arguments = {},
                         StandardError standardError = StandardError::Own);
    // Kills it if it still runs.
    ~SelfProcess();

    // Waits for that many bytes of output and returns them; fewer if the output ends first.
    std::string read(size_t length);

    // Waits for the end of the output.
    std::string readAll() { return read(SIZE_MAX); }

    // Ends it at once, as from outside: no handler of its own runs.
    void kill();

    // Waits for its end: the exit code; on Linux minus the signal's number when a signal ended it.
    int64_t wait();

private:
    struct Process;
    std::unique_ptr<Process> m_process;
};

} // namespace test
