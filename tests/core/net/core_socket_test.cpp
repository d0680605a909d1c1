#include "core/net/core_socket.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket_platform.h"
#include "tests/support/log_recorder.h"

using NS_CORE::SetSockAddr;
using NS_CORE::socket_platform::startLibrary;

namespace {

using Lines = std::vector<std::string>;

// The address that a text is read as, as the network writes it; fails the test when it is none.
std::string addressOf(const std::string& text) {
    sockaddr_in address;
    EXPECT_TRUE(SetSockAddr(text, 1, address)) << text;
    return ::inet_ntoa(address.sin_addr);
}

} // namespace

TEST(SetSockAddr, FillsInTheWholeAddress) {
    sockaddr_in address;
    std::memset(&address, 0xff, sizeof address);
    ASSERT_TRUE(SetSockAddr("127.0.0.1", 34002, address));
    const uint8_t expected[] = {0x84, 0xd2, 127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    static_assert(sizeof address == 16);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(std::memcmp(reinterpret_cast<const uint8_t*>(&address) + 2, expected, sizeof expected), 0);
}

TEST(SetSockAddr, AcceptsTheLimitedBroadcastAddress) {
    test::LogRecorder log;
    sockaddr_in address;
    ASSERT_TRUE(SetSockAddr("255.255.255.255", 7, address));
    EXPECT_EQ(address.sin_addr.s_addr, INADDR_NONE);
    EXPECT_EQ(address.sin_port, htons(7));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SetSockAddr, RefusesWhatIsNoAddress) {
    test::LogRecorder log;
    sockaddr_in address;
    Lines expected;
    // Of the broadcast address another spelling is none either.
    for (const char* text :
         {"0xffffffff", "", "255.255.255.256", "localhost", "1.2.3.4.5", "1.2.3.", "-1", "256.0.0.1", "1..2"}) {
        EXPECT_FALSE(SetSockAddr(text, 1, address)) << text;
        EXPECT_EQ(address.sin_addr.s_addr + address.sin_port, 0U) << text;
        expected.push_back(std::string("WARN CORE::SetSockAddr - invalid ip '") + text + "'");
    }
    EXPECT_EQ(log.lines(), expected);
}

TEST(SetSockAddr, ReadsShortOctalAndHexadecimalForms) {
    EXPECT_EQ(addressOf("127.1"), "127.0.0.1");
    EXPECT_EQ(addressOf("010.0x10.3"), "8.16.0.3");
    EXPECT_EQ(addressOf("2130706433"), "127.0.0.1");
    EXPECT_EQ(addressOf("0"), "0.0.0.0");
}

TEST(Addresses, AreInNetworkOrder) {
    EXPECT_EQ(NS_CORE::networkOrder(0x01020304), htonl(0x01020304));
    EXPECT_EQ(NS_CORE::kLoopbackAddress, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(NS_CORE::kAnyAddress, htonl(INADDR_ANY));
    EXPECT_EQ(NS_CORE::addressText(htonl(0xC0A80001)), "192.168.0.1");
    EXPECT_EQ(NS_CORE::addressText(INADDR_NONE), "255.255.255.255");
}

TEST(WinsockInit, HasRunBeforeMain) {
    EXPECT_TRUE(NS_CORE::winsockInitialised());
}

namespace {

// A library that starts as it is told.
int32_t g_startResult = 0;
uint16_t g_version = 0;

struct StartRow {
    int32_t result;
    uint16_t version;
    bool isStarted;
    Lines lines; // the clean-up's own among them
};

} // namespace

TEST(WinsockInit, StartsVersion22AndCleansUpAnyOther) {
    const std::string wrong = "CRIT WinsockInit - no suitable WinSock DLL ";
    const std::string cleanedUp = "INFO cleaned up";
    const StartRow rows[] = {{0, 0x0202, true, {}},
                             // The minor version comes before the major one.
                             {0, 0x0002, false, {wrong + "(0.2)", cleanedUp}},
                             {0, 0x0101, false, {wrong + "(1.1)", cleanedUp}},
                             {0, 0x0302, false, {wrong + "(3.2)", cleanedUp}},
                             {0, 0x0203, false, {wrong + "(2.3)", cleanedUp}},
                             {10091, 0x0202, false, {"CRIT WinsockInit - WSAStartup failed, err=10091"}}};
    for (const StartRow& row : rows) {
        test::LogRecorder log;
        g_startResult = row.result;
        g_version = row.version;
        const auto start = [](uint16_t* version) {
            *version = g_version;
            return g_startResult;
        };
        const auto cleanup = [] { NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Info, "cleaned up"); };
        EXPECT_EQ(startLibrary({.start = start, .cleanup = cleanup}), row.isStarted) << row.version;
        EXPECT_EQ(log.lines(), row.lines);
    }
}

TEST(WinsockInit, LeavesTheCleanUpAtExitOn) {
    EXPECT_TRUE(NS_CORE::winsockCleanupAtExit());
    NS_CORE::setWinsockCleanupAtExit(false);
    EXPECT_FALSE(NS_CORE::winsockCleanupAtExit());
    NS_CORE::setWinsockCleanupAtExit(true);
}
