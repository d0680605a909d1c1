// How long a crash takes, from the fault until dump, log line and history line are finished: by the crash guard, and by
// what a program would use instead (bare_report.h). One crash of this process; prints its nanoseconds. The files are
// written to work/dumps and work/logs below the working directory, which must be there.
//
//     crash_bench WAY
//
// WAY is guard, or one of the platform's.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "bench/bare_report.h"
#include "core/crash/core_crashguard.h"
#include "core/identity/core_paths.h"
#include "core/log/core_v2masterlogger.h"
#include "utl/utl_filelogger.h"

namespace {

std::chrono::steady_clock::time_point g_fault;
int* volatile g_nowhere = nullptr;

[[noreturn]] void printAndEnd() {
    const auto took = std::chrono::steady_clock::now() - g_fault;
    std::printf("%lld\n", static_cast<long long>(std::chrono::nanoseconds(took).count()));
    std::fflush(stdout);
    std::_Exit(0);
}

// As deep in the stack as the service's loop is. Not inlined, and no loop either.
[[gnu::noipa]] int fault(int depth) {
    volatile int own = depth;
    if (depth > 0) return fault(depth - 1) + own;
    g_fault = std::chrono::steady_clock::now();
    return *g_nowhere;
}

int application(int /*argc*/, char** /*argv*/) {
    constexpr int kDepth = 10;
    return fault(kDepth);
}

} // namespace

int main(int argc, char** argv) {
    NS_CORE::setDefaultPaths();
    constexpr int64_t kMaxLogSize = 5'000'000;
    NS_CORE::MasterLogger::setImplementation(
        std::make_unique<NS_UTL::FileLogger>("./work/logs", "service.log", kMaxLogSize, 1));
    if (argc != 2) return 2;
    if (argv[1] != std::string_view("guard")) {
        bench::reportFaultsBarely(argv[1], &printAndEnd);
        return application(argc, argv);
    }
    return NS_CORE::guard(argc, argv, &application) == NS_CORE::kCrashResult ? (printAndEnd(), 0) : 1;
}
