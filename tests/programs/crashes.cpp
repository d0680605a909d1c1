// A program that ends in the way that its first argument names, in the directory that its second names: a debugger
// reads it in a third of the time that core_tests takes.

#include <filesystem>

#include "core/crash/core_crashguard.h"
#include "core/identity/core_paths.h"
#include "tests/support/crash_kinds.h"

namespace {

int crashAsTold(int /*argc*/, char** argv) {
    test::crash(argv[1]);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    test::endQuietlyOnUnhandledFaults();
    std::filesystem::current_path(argv[2]);
    NS_CORE::setDefaultPaths();
    return NS_CORE::guard(argc, argv, &crashAsTold);
}
