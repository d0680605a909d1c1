#include "tests/health/health_fixture.h"

namespace test {
namespace {

TEST_F(HealthTest, CannotStartAServiceWithoutAManager) {
    const Health health = ask({"--recover"});
    EXPECT_EQ(health.code, 2);
    EXPECT_TRUE(health.says("The service was not started: there is no service manager here")) << health.text;
}

} // namespace
} // namespace test
