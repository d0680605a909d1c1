#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>

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

bool hasLine(const Strings& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST_F(TestInterfaceTest, TellsThatTheSocketCannotBeCreatedAndKeepsTheFailures) {
    configure();
    {
        const NoDescriptors none;
        fail(1);
        EXPECT_TRUE(hasLine(log.lines(), "WARN TestInterface:sendAsserts - failed creating socket"));
        const size_t told = log.lines().size();
        for (int i = 0; i < 1000; ++i) fail(1);
        EXPECT_EQ(log.lines().size(), told);
    }
    nowMs += TestInterface::kFirstRetryMs;
    fail(1);
    EXPECT_EQ(collector.receive().bytes, document(1, 1002, 1002));
}

TEST_F(TestInterfaceTest, TellsThatLogsCannotBeRequestedWithoutASocket) {
    configure();
    {
        const NoDescriptors none;
        interface.requestSendLogs("a", "1");
    }
    EXPECT_TRUE(hasLine(log.lines(), "WARN TestInterface:requestSendLogs - d_socket is null\n"));
    expectNoMore();
}

TEST_F(TestInterfaceTest, GoesOnWithTheDefaultsWhereTheSettingsCannotBeRead) {
    std::filesystem::create_directory(dir.path() / "settings" / "testing.ini");
    EXPECT_TRUE(interface.loadIni());
    EXPECT_EQ(interface.settings(), NS_CORE::TestSettings());
    EXPECT_EQ(log.lines(),
              Strings{"WARN CORE::readSettingsFile - failed reading 'settings/testing.ini': Is a directory"});
}

} // namespace
