#include <gtest/gtest.h>
#include <winsock2.h>

#include <windows.h>

#include <algorithm>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/core/report/testinterface_fixture.h"

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

// A file that does not open is as good as none.
TEST_F(TestInterfaceTest, GoesOnToTheAlternativeWhereTheSettingsDoNotOpen) {
    test::writeFile(dir.path() / "settings" / "testing.alt.ini", "[general]\nsend_port 2\n");
    writeIni("[general]\nsend_port 1\n");
    {
        const NS_CORE::ScopedFileHandle held(
            ::CreateFileW((dir.path() / "settings" / "testing.ini").c_str(), GENERIC_WRITE, /*dwShareMode=*/0,
                          /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(held);
        EXPECT_TRUE(interface.loadIni());
        EXPECT_EQ(interface.settings().sendPort, 2);
    }
    std::filesystem::remove(dir.path() / "settings" / "testing.ini");
    std::filesystem::create_directory(dir.path() / "settings" / "testing.ini");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings().sendPort, 2);
    std::filesystem::remove(dir.path() / "settings" / "testing.alt.ini");
    EXPECT_FALSE(interface.loadIni());
    EXPECT_EQ(log.lines(), Strings());
}

} // namespace
