#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/crash_kinds.h"

// Of the leak checker, where the program is built with it.
extern "C" [[gnu::weak]] void __lsan_disable();

namespace test {
namespace {

// A page of a file that has none.
[[gnu::noinline]] void readBeyondFile() {
    const int fd = ::memfd_create("empty", MFD_CLOEXEC);
    const volatile char* const page =
        static_cast<const volatile char*>(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
    static_cast<void>(*page);
}

[[gnu::noinline]] void sendFault() {
    ::kill(::getpid(), SIGSEGV);
}

} // namespace

// A core file takes its time, and would stay.
void endQuietlyOnUnhandledFaults() {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
}

// The sanitizers have handlers of their own, which end the process with these codes.
#if defined(__SANITIZE_ADDRESS__)
const int64_t kUnhandledFaultExitCode = 1;
#elif defined(__SANITIZE_THREAD__)
const int64_t kUnhandledFaultExitCode = 66;
#else
const int64_t kUnhandledFaultExitCode = -SIGSEGV;
#endif

void leaveMemoryBehind() {
    if (&__lsan_disable != nullptr) __lsan_disable();
}

const int64_t kCrashExitCode = 129;

std::map<std::string, void (*)()> platformCrashKinds() {
    return {{"bus", &readBeyondFile}, {"sent", &sendFault}};
}

} // namespace test
