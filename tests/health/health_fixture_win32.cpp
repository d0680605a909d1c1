#include "tests/health/health_fixture.h"
#include "tests/support/self_process.h"

namespace test {

const std::string kDead = "service-dead";

void crash(SupervisedService& service, const Installation& /*installation*/) {
    SelfProcess caller("crash-main-thread");
    caller.read(std::string("called").size());
    // The first thread waits for the end of the service.
    service.requestStop();
    EXPECT_EQ(caller.wait(), 0);
}

} // namespace test
