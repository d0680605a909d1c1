#include "service/main.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/crash/core_crashguard.h"
#include "core/identity/core_paths.h"
#include "core/identity/core_product.h"
#include "core/log/core_v2masterlogger.h"
#include "core/report/core_testinterface.h"
#include "service/names.h"
#include "service/supervision.h"
#include "utl/utl_service.h"

namespace service {
namespace {

constexpr const char* kProductIdentifier = "ravelin";
constexpr const char* kDisplayName = "Quorvane Keri Wrapper";
// The executables lie in this directory below the installation, which is where the service works.
constexpr const char* kAnchor = "bin";
constexpr const char* kLogFileName = "service.log";

} // namespace

int runProcess(ArgumentVector& arguments) {
    return NS_CORE::guard(arguments.count(), arguments.values(), &applicationStart);
}

int applicationStart(int argc, char** argv) {
    NS_CORE::setProductIdentifier(kProductIdentifier);
    NS_CORE::setDefaultPaths();
    const NS_CORE::DefaultGlobals globals;
    const int result = main(argc, argv);
    NS_CORE::TestInterface::instance().sendPending();
    return result;
}

int main(int argc, char** argv) {
    // Supervisor and host live on the heap. A fault of this thread abandons its stack without destructors, but the
    // service manager's thread uses both objects until the process has ended.
    const auto supervisor = std::make_unique<Supervisor>();
    std::function<void()> stop = [supervisor = supervisor.get()] { supervisor->stop(); };
    std::function<int(int, char**)> run = [supervisor = supervisor.get()](int runArgc, char** runArgv) {
        return supervisor->run(runArgc, runArgv);
    };
    const auto host = std::make_unique<NS_UTL::Service>(kAnchor, kServiceName, kDisplayName,
                                                        NS_CORE::dotPath(NS_CORE::PathKind::Logs), kLogFileName,
                                                        std::move(run), std::move(stop));
    // The initialiser before main read the settings of the directory in which the process was started. The host has
    // moved to the installation's directory since, and the settings there apply.
    NS_CORE::TestInterface::instance().readFiles();
    const int result = host->run(argc, argv);
    NS_UTL::Service::clearInstance();
    return result;
}

} // namespace service
