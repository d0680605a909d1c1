#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

namespace service {

// Keeps the companion program running for as long as the service runs: copies the libraries it needs, then starts it,
// waits for its end and starts it again after a pause, without limit, whatever the reason and the exit code.
//
// A stop request is noticed at two places only: when the companion has ended (or could not be started), and when the
// pause is over. So
// - a stop while the companion runs ends the loop as soon as the companion ends; the stop datagram asks it to;
// - a stop during the pause ends the loop when the pause is over, without another start;
// - a stop before the first start is lost: run sets the running flag after the deployment;
// - a companion that ignores the datagram holds the loop for as long as it runs.
//
// run is called once, on the thread that does the service's work; stop may be called on any
// thread, any number of times.
class Supervisor {
public:
    static constexpr uint32_t kRestartDelayMs = 5000;
    // Any datagram at its port tells the companion to stop; ours has this many bytes, whatever their values.
    static constexpr uint32_t kStopDatagramSize = 10;

    // What supervision does besides waiting, so that tests can put their own steps in its place.
    struct Steps {
        // Copies the companion's libraries; its outcome does not matter.
        std::function<void()> deploy;
        // Starts the program and returns when it has ended or could not be started; logs the latter.
        std::function<void(const char* commandLine)> start;

        // The service's own: CopyDependencies and ProcessUtils::start.
        static Steps production();
    };

    // restartDelayMs  the least time between the companion's end and its next start, on the monotonic clock.
    explicit Supervisor(Steps steps = Steps::production(), uint32_t restartDelayMs = kRestartDelayMs);
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;
    ~Supervisor() = default;

    // The service's run callback. Returns 0 when a stop request was noticed. The arguments do not matter.
    // Logs INFO "Running" and, before each restart, WARN "Run: '%s' failed".
    int run(int argc, char** argv);

    // The service's stop callback: asks the loop and the companion to end and waits for neither. Logs INFO "Stop".
    // A socket that cannot be opened is a failed check at main:113, a datagram that cannot be sent one at main:122.
    void stop();

private:
    std::function<void()> m_deploy;
    std::function<void(const char* commandLine)> m_start;
    uint32_t m_restartDelayMs;
    std::atomic<bool> m_running{false};
};

} // namespace service
