#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "utl/utl_servicestatus.h"

namespace NS_UTL {

// What the host asks of the service control manager while the service runs. A table, so that the whole life of a
// service can be tested without a manager.
struct ServiceManagerCalls {
    // The manager's handle of one running service; null when there is none.
    using StatusHandle = void*;

    // Hands the calling thread to the manager, which calls Service::serviceMain on a thread of its own, until the
    // service has stopped. False when no manager started this process, with the reason as the thread's last system
    // error.
    std::function<bool(const char* serviceName)> runDispatcher;

    // Registers Service::controlHandler for the service of this name. Null on failure, with the reason as the thread's
    // last system error.
    std::function<StatusHandle(const char* serviceName)> registerControlHandler;

    // Hands one status to the manager. Failures are ignored: nobody could act on them.
    std::function<void(StatusHandle handle, const ServiceStatus& status)> setStatus;

    // What Service::install and Service::remove do, with their results. They log why they fail.
    std::function<bool(const std::string& serviceName, const std::string& displayName,
                       const std::string& executablePath)>
        install;
    std::function<bool(const std::string& serviceName)> remove;

    // The platform's own.
    static ServiceManagerCalls platform();
};

// Turns an application's run and stop callbacks into a service of the operating system: installs and removes it,
// runs it under the service control manager or, for a person at a console, as an ordinary program.
//
// One instance at a time. The callbacks that the system makes (signals, service main, controls) find it through a
// process-wide pointer, which the constructor sets and the application clears, with clearInstance, once run has
// returned. Failures are logged here and reported by the result; only an empty run callback throws.
//
// Where there is no service control manager (Linux), install, remove and service mode fail with the messages of a
// manager that cannot be reached; console mode is what carries the application there.
class Service {
public:
    // The application's work. Called on the thread of service main (service mode) or of run (console mode). Its result
    // becomes the service-specific exit code or run's result.
    using RunCallback = std::function<int(int argc, char** argv)>;
    // Asks the work to end, and returns at once. May be empty. Called on another thread than the work's, or, on
    // Windows, in the middle of it when the process raises a signal itself.
    using StopCallback = std::function<void()>;

    // The first word after the program's name for installation and removal; a word anywhere for console mode.
    static constexpr std::string_view kInstallWord = "service-install";
    static constexpr std::string_view kRemoveWord = "service-remove";
    static constexpr std::string_view kConsoleWord = "service-console";

    // The service's log file is rotated past this many bytes; one rotated file is kept.
    static constexpr uint32_t kLogFileLimit = 5000000;
    static constexpr uint32_t kLogFilesKept = 1;

    // Moves the working directory and installs the rotating log file.
    // anchor        the end of the executable's directory that is taken off to get the working directory, as in "bin";
    //               empty: the executable's directory itself. If the directory cannot be set, a check fails at
    //               utl_service:34 (empty anchor) or :41 (message: the anchor), and construction goes on.
    // logDirectory  relative to the working directory.
    Service(const std::string& anchor, std::string name, std::string displayName, std::string logDirectory,
            std::string logFileName, RunCallback run, StopCallback stop);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Chooses the mode by the arguments and performs it.
    // Returns the process's exit code: 0, 1 for a failed install, remove or dispatcher start, in console mode the
    // run callback's result.
    [[nodiscard]] int run(int argc, char** argv);

    // What `run` does with these arguments. The words for installation and removal count only as the first one after
    // the program's name, the word for console mode counts anywhere, element 0 included.
    enum class Mode { Install, Remove, Console, Service };
    [[nodiscard]] static Mode modeOf(int argc, char** argv);

    // Registers the executable as a service that starts automatically, as LocalSystem. A service of this name
    // that is there already counts as success and stays as it is. Needs administrator rights.
    [[nodiscard]] bool install(const std::string& name, const std::string& displayName,
                               const std::string& executablePath);

    // Unregisters the service of this host's name; fails when it is not registered. Needs administrator rights.
    [[nodiscard]] bool remove();

    // Runs in service mode, or else in console mode. Service mode returns 0 when the service has stopped, and 1 if no
    // manager started this process. Console mode returns the run callback's result.
    [[nodiscard]] int runService(bool asService, int argc, char** argv);

    // From now on the callbacks below fail a check. Waits until callbacks that are running have returned, so that the
    // host can be destroyed. Do not call it from one of them.
    static void clearInstance();

    // Console mode's handler for a signal: logs the number and calls the stop callback. Without an instance a failed
    // check at utl_service:119.
    static void signalHandler(int signum);

    // The life of the service in service mode, on a thread of the manager's: reports start pending and running, calls
    // the run callback with these arguments, reports stopped with its result as the service-specific exit code.
    // Without an instance a failed check at utl_service_win32:192.
    static void serviceMain(uint32_t argc, char** argv);

    // A control request, on the dispatcher's thread: stop and shutdown call the stop callback and make the state
    // stop pending; pause, continue and unknown controls are failed checks at utl_service_win32:166, :172 and :180.
    // The status is reported after each, unless the service has already stopped. Without an instance a failed check
    // at utl_service_win32:141.
    static void controlHandler(uint32_t control);

    // For tests: replaces the service control manager. Call it before run.
    void setServiceManager(ServiceManagerCalls calls) { m_manager = std::move(calls); }

    // For tests: the current status.
    ServiceStatus status() const { return m_status.status(); }

private:
    int runInstall();
    int runRemove();
    int runInConsole(int argc, char** argv);
    void runAsService(int argc, char** argv);
    void control(uint32_t control);
    void requestStop();

    std::string m_name;
    std::string m_displayName;
    RunCallback m_run;
    StopCallback m_stop;
    ServiceStatusReporter m_status;
    ServiceManagerCalls::StatusHandle m_statusHandle = nullptr;
    ServiceManagerCalls m_manager;
};

} // namespace NS_UTL
