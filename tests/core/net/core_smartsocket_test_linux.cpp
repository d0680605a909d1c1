#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <thread>

#include "core/log/core_v2masterlogger.h"
#include "core/net/core_smartsocket.h"
#include "core/net/core_socket.h"
#include "core/net/core_udp4socket.h"
#include "tests/support/log_recorder.h"

using NS_CORE::SmartSocket;
using NS_CORE::Udp4Socket;

namespace {

constexpr int32_t kInet = 2;
constexpr int32_t kDatagram = 2;

// What Linux takes from a thread for good is taken from one that ends with the test.
void onItsOwnThread(const std::function<void()>& test) {
    std::thread(test).join();
}

// From here on setsockopt is refused to this thread with EPERM.
void refuseSocketOptions() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setsockopt, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

// Without the source line, which may move.
std::string withoutLine(const std::string& text) {
    return text.substr(0, text.find_last_of(':'));
}

} // namespace

TEST(SmartSocket, IsNotInheritedByChildren) {
    SmartSocket socket;
    ASSERT_TRUE(socket.create(kInet, kDatagram, /*protocol=*/0, /*flags=*/0));
    EXPECT_EQ(::fcntl(static_cast<int>(socket.handle()), F_GETFD), FD_CLOEXEC);
}

TEST(SmartSocket, StaysEmptyWhenItsOptionIsRefused) {
    onItsOwnThread([] {
        refuseSocketOptions();
        test::LogRecorder log;
        SmartSocket socket;
        EXPECT_FALSE(socket.create(kInet, kDatagram, /*protocol=*/0, NS_CORE::SocketFlag::ReuseAddr));
        EXPECT_FALSE(socket.isOpen());
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0], "WARN CORE::SmartSocket::setReuseAddr - failed to set REUSEADDR");
        EXPECT_EQ(withoutLine(log.lines()[1]), "WARN Log at core_smartsocket");
        // Nothing was left open.
        const int next = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
        EXPECT_TRUE(socket.create(kInet, kDatagram, /*protocol=*/0, /*flags=*/0));
        EXPECT_EQ(static_cast<int>(socket.handle()), next + 1);
    });
}

TEST(Udp4Socket, SaysWhereTheOpenFailed) {
    Udp4Socket socket;
    test::LogRecorder log;
    // A sanitizer needs descriptors when it first looks at the recorder.
    NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Warn, "first");
    // No descriptor is to be had any more.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_FALSE(socket.open(/*flags=*/1, NS_CORE::kLoopbackAddress));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
    EXPECT_EQ(withoutLine(lines[2]), "WARN Log at core_udp4socket");
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(socket.family(), 0);
    EXPECT_EQ(socket.flags(), 0U);
    EXPECT_EQ(socket.localAddress(), 0U);
    // It can be opened once there is room again.
    EXPECT_TRUE(socket.open(/*flags=*/0, NS_CORE::kAnyAddress));
}

TEST(Udp4Socket, ReportsANetworkThatCannotBeReached) {
    onItsOwnThread([] {
        // A network with nothing in it, not even the loopback.
        ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
        Udp4Socket socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, NS_CORE::kAnyAddress));
        test::LogRecorder log;
        EXPECT_FALSE(socket.send("127.0.0.1", 34002, "0123456789", 10));
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{"WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in "
                                            "sendto (101: Network is unreachable)"}));
    });
}
