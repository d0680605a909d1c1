#include <gtest/gtest.h>
#include <winsock2.h>

#include "core/net/core_smartsocket.h"

TEST(SmartSocket, IsNotInheritedByChildren) {
    NS_CORE::SmartSocket socket;
    ASSERT_TRUE(socket.create(AF_INET, SOCK_DGRAM, /*protocol=*/0, /*flags=*/0));
    DWORD flags = HANDLE_FLAG_INHERIT;
    ASSERT_TRUE(::GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(socket.handle())), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
}
