#include "core/net/core_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <winsock2.h>

#include "tests/support/child.h"
#include "tests/support/self_process.h"

namespace {

bool g_tellWhetherSocketsWork = false;

// The last exit handler to run, because it is registered before all others.
void tellWhetherSocketsWork() {
    if (!g_tellWhetherSocketsWork) return;
    const SOCKET socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    std::printf("%s", socket != INVALID_SOCKET ? "sockets still work" : "sockets are cleaned up");
    std::fflush(stdout);
}

struct Early {
    Early() { static_cast<void>(std::atexit(&tellWhetherSocketsWork)); }
};
[[gnu::init_priority(101)]] Early g_early;

const test::ChildProgram g_exits("exit-with-winsock", [](const std::vector<std::string>& arguments) {
    g_tellWhetherSocketsWork = true;
    NS_CORE::setWinsockCleanupAtExit(arguments.at(0) == "cleanup");
    return 0;
});

// To the system a socket is a kind of pipe; under Wine an inherited one is nothing else. The child's own handles, which
// may have the same number, are no pipes.
const test::ChildProgram g_hasHandle("has-handle", [](const std::vector<std::string>& arguments) {
    return ::GetFileType(reinterpret_cast<HANDLE>(std::stoul(arguments.at(0)))) == FILE_TYPE_PIPE ? 1 : 0;
});

} // namespace

TEST(WinsockInit, IsCleanedUpAtExitUnlessToldNotTo) {
    for (const auto& [word, end] :
         {std::pair("cleanup", "sockets are cleaned up"), std::pair("keep", "sockets still work")}) {
        test::SelfProcess child("exit-with-winsock", {word});
        EXPECT_EQ(child.readAll(), end);
        EXPECT_EQ(child.wait(), 0);
    }
}

TEST(WinsockInit, MakesFilesBinary) {
    int mode = 0;
    ASSERT_EQ(::_get_fmode(&mode), 0);
    EXPECT_EQ(mode, _O_BINARY);
}
