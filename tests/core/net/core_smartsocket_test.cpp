#include "core/net/core_smartsocket.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "tests/support/log_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/udp_receiver.h"

namespace NS_CORE {
namespace {

constexpr int32_t kInet = 2;
constexpr int32_t kDatagram = 2;

SmartSocket opened(uint32_t flags = 0) {
    SmartSocket socket;
    EXPECT_TRUE(socket.create(kInet, kDatagram, /*protocol=*/0, flags));
    return socket;
}

// A socket's option; none when the system does not know the handle as an open socket.
std::optional<int> optionOf(SocketHandle handle, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    const int result = ::getsockopt(static_cast<test::SystemSocket>(handle), SOL_SOCKET, option,
                                    reinterpret_cast<char*>(&value), &size);
    return result == 0 ? std::optional(value) : std::nullopt;
}

bool isAlive(SocketHandle handle) {
    return optionOf(handle, SO_TYPE).has_value();
}

static_assert(!std::is_copy_constructible_v<SmartSocket> && !std::is_copy_assignable_v<SmartSocket>);
static_assert(std::is_nothrow_move_constructible_v<SmartSocket> && std::is_nothrow_move_assignable_v<SmartSocket>);

TEST(SmartSocket, IsNotInheritedByAChildThatInheritsHandles) {
    const SmartSocket socket = opened();
    EXPECT_EQ(test::SelfProcess("has-handle", {std::to_string(socket.handle())}).wait(), 0);
}

TEST(SmartSocket, ClosesWhatItOwnsWhenItEnds) {
    const SocketHandle handle = opened().handle();
    EXPECT_FALSE(isAlive(handle));
}

TEST(SmartSocket, OwnsNothingAtFirstAndOnceItIsClosed) {
    SmartSocket socket;
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(socket.handle(), kInvalidSocket);
    socket = opened();
    const SocketHandle handle = socket.handle();
    for (int i = 0; i < 2; ++i) {
        socket.close();
        EXPECT_FALSE(isAlive(handle));
        EXPECT_EQ(socket.handle(), kInvalidSocket);
    }
    EXPECT_FALSE(socket.isOpen());
}

TEST(SmartSocket, GivesItsHandleAwayAndClosesWhatItHeldWhenMoved) {
    SmartSocket from = opened();
    SmartSocket to = opened();
    const SocketHandle taken = from.handle();
    const SocketHandle given = to.handle();
    to = std::move(from);
    EXPECT_EQ(to.handle(), taken);
    EXPECT_TRUE(isAlive(taken));
    EXPECT_FALSE(isAlive(given));
    EXPECT_FALSE(from.isOpen()); // NOLINT(bugprone-use-after-move): that is the promise
    const SmartSocket last = std::move(to);
    EXPECT_EQ(last.handle(), taken);
    EXPECT_EQ(to.handle(), kInvalidSocket); // NOLINT(bugprone-use-after-move)
}

TEST(SmartSocket, ClosesTheOldHandleWhenCreatedAgain) {
    SmartSocket socket = opened();
    const SmartSocket placeholder = opened();
    const SocketHandle first = socket.handle();
    ASSERT_TRUE(socket.create(kInet, kDatagram, /*protocol=*/0, NS_CORE::SocketFlag::ReuseAddr));
    // The old handle was closed before the new one was made, so the system gives its number again.
    EXPECT_EQ(socket.handle(), first);
    EXPECT_TRUE(isAlive(socket.handle()));
    EXPECT_NE(optionOf(socket.handle(), SO_REUSEADDR).value(), 0);
}

TEST(SmartSocket, SetsReuseAddrOnlyWhenAsked) {
    EXPECT_EQ(optionOf(opened().handle(), SO_REUSEADDR), 0);
    EXPECT_NE(optionOf(opened(NS_CORE::SocketFlag::ReuseAddr).handle(), SO_REUSEADDR).value(), 0);
}

TEST(SmartSocket, BlocksUnlessAskedNotTo) {
    SmartSocket socket = opened(NS_CORE::SocketFlag::NonBlocking);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    const auto handle = static_cast<test::SystemSocket>(socket.handle());
    ASSERT_EQ(::bind(handle, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    // Would wait for ever otherwise.
    char byte = 0;
    EXPECT_LT(::recvfrom(handle, &byte, 1, 0, nullptr, nullptr), 0);
}

TEST(SmartSocket, ReportsASocketThatTheSystemDoesNotMake) {
    SmartSocket socket = opened();
    const SocketHandle before = socket.handle();
    test::LogRecorder log;
    EXPECT_FALSE(socket.create(kInet, 77, /*protocol=*/5, /*flags=*/0));
    EXPECT_FALSE(socket.isOpen());
    EXPECT_FALSE(isAlive(before));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"WARN CORE::SmartSocket::create(2,77,5) - failed to open socket"}));
}

} // namespace
} // namespace NS_CORE
