#include <gtest/gtest.h>

#include <cstdlib>

#include "core/identity/core_rcsname.h"

TEST(HostName, IsTheMachines) {
    const char* const name = std::getenv("COMPUTERNAME");
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(NS_CORE::hostName(), name);
}

TEST(BuildIdentity, ThePlatformIsTheProducts) {
    EXPECT_EQ(NS_CORE::platform(), "win_i686");
}
