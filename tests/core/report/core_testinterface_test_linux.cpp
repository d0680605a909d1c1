#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/core/report/testinterface_fixture.h"

// Faults as this system makes them.
namespace {

TEST_F(TestInterfaceTest, LogsThatTheSocketCannotBeCreatedAndKeepsTheFailures) {
    configure();
    rlimit usual;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    fail(1);
    fail(2);
    interface.requestSendLogs("a", "1");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(countOf("WARN TestInterface:sendAsserts - failed creating socket"), 2U);
    EXPECT_EQ(countOf("WARN TestInterface:requestSendLogs - d_socket is null\n"), 1U);
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 2, 2));
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 1));
    expectNoMore();
}

TEST_F(TestInterfaceTest, LogsSettingsThatCannotBeRead) {
    std::filesystem::create_directory(dir.path() / "settings" / "testing.ini");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings(), NS_CORE::TestSettings());
    EXPECT_EQ(log.lines(),
              Strings{"WARN CORE::readSettingsFile - failed reading 'settings/testing.ini': Is a directory"});
}

} // namespace
