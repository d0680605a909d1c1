#include "utl/utl_servicestatus.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <vector>

namespace NS_UTL {
namespace {

// The states that a service reports one by one are utl_service_test.cpp's.
struct ServiceStatusReporterTest : testing::Test {
    ServiceStatusReporter m_reporter;
    std::vector<ServiceStatus> m_reports; // written under the reporter's lock
};

TEST_F(ServiceStatusReporterTest, ReportsNothingBeforeItIsConnected) {
    m_reporter.begin();
    m_reporter.enter(ServiceState::Running);
    m_reporter.repeat();
    EXPECT_EQ(m_reporter.status().currentState, ServiceState::Running);
}

TEST_F(ServiceStatusReporterTest, ReportsNothingAfterStopped) {
    m_reporter.begin();
    m_reporter.connect([this](const ServiceStatus& status) { m_reports.push_back(status); });
    m_reporter.enter(ServiceState::Running);
    m_reporter.enterStopped(3);
    m_reporter.enter(ServiceState::StopPending);
    m_reporter.repeat();
    m_reporter.enterStopped(4);
    EXPECT_EQ(m_reports, (std::vector<ServiceStatus>{{0x10, 4, 5, 0, 0, 0, 0}, {0x10, 1, 5, 0, 3, 0, 0}}));
    EXPECT_EQ(m_reporter.status(), m_reports.back());
    m_reporter.begin();
    EXPECT_EQ(m_reporter.status(), (ServiceStatus{0x10, 2, 5, 0, 0, 0, 0})) << "until the next beginning";
}

// The manager's library may make the last report wait until a handler that is at work has returned; then the handler
// must not wait for the report.
TEST_F(ServiceStatusReporterTest, LetsAHandlerReturnWhileStoppedIsBeingReported) {
    std::vector<uint32_t> reported;
    m_reporter.begin();
    m_reporter.connect([&](const ServiceStatus& status) {
        reported.push_back(status.currentState);
        std::thread handler([&] {
            m_reporter.enter(ServiceState::StopPending);
            m_reporter.repeat();
        });
        handler.join();
    });
    m_reporter.enterStopped(0);
    EXPECT_EQ(reported, (std::vector<uint32_t>{ServiceState::Stopped}));
}

TEST_F(ServiceStatusReporterTest, MayBeUsedByAllThreadsAtOnce) {
    const std::function<void()> calls[] = {
        [this] { m_reporter.begin(); },         [this] { m_reporter.connect([](const ServiceStatus&) {}); },
        [this] { m_reporter.enter(4); },        [this] { m_reporter.repeat(); },
        [this] { m_reporter.enterStopped(0); }, [this] { EXPECT_LE(m_reporter.status().currentState, 4U); },
    };
    std::vector<std::thread> threads;
    for (const std::function<void()>& call : calls)
        threads.emplace_back([&call] {
            for (int i = 0; i < 1000; ++i) call();
        });
    for (std::thread& thread : threads) thread.join();
}

} // namespace
} // namespace NS_UTL
