#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/core/report/testinterface_fixture.h"

// Faults as this system makes them.
namespace {

// No further descriptor for this process while it lives.
class NoDescriptors {
public:
    NoDescriptors() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit none{0, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before;
};

TEST_F(TestInterfaceTest, LogsThatTheSocketCannotBeCreatedAndKeepsTheFailures) {
    configure();
    {
        const NoDescriptors none;
        fail(1);
        fail(2);
        EXPECT_EQ(countOf("WARN TestInterface:sendAsserts - failed creating socket"), 2U);
    }
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 2, 2));
    EXPECT_EQ(collector.receive().bytes, document(2, 1, 1));
}

TEST_F(TestInterfaceTest, LogsThatLogsCannotBeRequestedWithoutASocket) {
    configure();
    {
        const NoDescriptors none;
        interface.requestSendLogs("a", "1");
    }
    EXPECT_EQ(countOf("WARN TestInterface:requestSendLogs - d_socket is null\n"), 1U);
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
