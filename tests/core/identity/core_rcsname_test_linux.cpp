#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <string>

#include "core/identity/core_rcsname.h"

TEST(HostName, IsTheMachines) {
    utsname machine{};
    ASSERT_EQ(::uname(&machine), 0);
    EXPECT_EQ(NS_CORE::hostName(), machine.nodename);
}

TEST(BuildIdentity, ThePlatformIsTheSystemAndTheMachinesFamily) {
    utsname machine{};
    ASSERT_EQ(::uname(&machine), 0);
    EXPECT_EQ(NS_CORE::platform(), std::string("linux_") + machine.machine);
}
