#include <gtest/gtest.h>
#include <winsock2.h>

#include <algorithm>

#include "tests/core/testinterface_fixture.h"

// Faults as this system makes them.
namespace {

bool hasLine(const Strings& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST_F(TestInterfaceTest, TellsThatTheSocketCannotBeCreated) {
    configure();
    ASSERT_EQ(::WSACleanup(), 0);
    fail(1);
    EXPECT_TRUE(hasLine(log.lines(), "WARN TestInterface:sendAsserts - failed creating socket"));
    const size_t told = log.lines().size();
    for (int i = 0; i < 1000; ++i) fail(1);
    EXPECT_EQ(log.lines().size(), told);
    interface.requestSendLogs("a", "1");
    EXPECT_TRUE(hasLine(log.lines(), "WARN TestInterface:requestSendLogs - d_socket is null\n"));
    NS_CORE::WinsockInit();
}

} // namespace
