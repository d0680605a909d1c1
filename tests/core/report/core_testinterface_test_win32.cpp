#include <gtest/gtest.h>
#include <winsock2.h>

#include <windows.h>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/core/report/testinterface_fixture.h"

// Faults as this system makes them.
namespace {

TEST_F(TestInterfaceTest, LogsThatTheSocketCannotBeCreatedAndKeepsTheFailures) {
    configure();
    ASSERT_EQ(::WSACleanup(), 0);
    fail(1);
    fail(2);
    EXPECT_EQ(countOf("WARN TestInterface:sendAsserts - failed creating socket"), 2U);
    interface.requestSendLogs("a", "1");
    EXPECT_EQ(countOf("WARN TestInterface:requestSendLogs - d_socket is null\n"), 1U);
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
