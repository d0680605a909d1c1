#include <signal.h>

#include "tests/health/health_fixture.h"

namespace test {

const std::string kDead = "service-stopped";

void crash(SupervisedService& service, const Installation& /*installation*/) {
    ::kill(static_cast<pid_t>(service.processId()), SIGSEGV);
}

} // namespace test
