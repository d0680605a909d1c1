#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/installation.h"
#include "tests/system/platform.h"

namespace test {

// The service of one installation, run the way the platform runs it: by the service control manager on Windows, in
// console mode (stopped by SIGTERM) on Linux. One at a time per machine: name and port are fixed. What a failed
// test leaves running is ended, and the service removed, with the object.
class SupervisedService {
public:
    explicit SupervisedService(const Installation& installation);
    ~SupervisedService();
    SupervisedService(const SupervisedService&) = delete;
    SupervisedService& operator=(const SupervisedService&) = delete;

    // Starts it and waits until it counts as running (Linux: until the log says so, since no earlier moment is known at
    // which a signal is a stop request). Throws when it does not.
    void start();

    // Asks for the stop and returns when the request has been handed over (Windows: when the handler has answered).
    // Throws when it is refused.
    void requestStop();

    // The process is gone, and on Windows the last state is stopped, with both exit codes 0; on Linux it ended with 0.
    // Throws when that is not so within the limit.
    void awaitStopped();
    bool hasStopped();

    // Ends the process by its id, as a crash would.
    void kill();

    uint32_t processId() const { return m_processId; }

    // The whole log of one life that ends by a stop request, with what happened between the deployment and the request.
    static std::vector<std::string> wholeLog(const std::vector<std::string>& between = {});

private:
    const Installation& m_installation;
    uint32_t m_processId = 0;
    std::unique_ptr<Process> m_process; // Linux only: there the test starts the service itself
};

// Lines that the tests compare, in one place.
namespace line {
inline const std::string running = "Run - Running";
inline const std::string copying = "CopyDependencies - Copying dependencies";
inline const std::string stop = "Stop - Stop";
inline const std::string failed = "Run - Run: 'quorkeri_wrapper.exe' failed";
inline const std::string startFailed = "NS_UTL::ProcessUtils::start - failed to start 'quorkeri_wrapper.exe': ";
} // namespace line

} // namespace test
