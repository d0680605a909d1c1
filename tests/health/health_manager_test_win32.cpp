#include <thread>

#include "tests/health/health_fixture.h"
#include "tests/system/await.h"
#include "tests/system/service_manager_win32.h"

// The health check and the service control manager.
namespace test {
namespace {

TEST_F(HealthTest, RecoversWhatAKilledServiceLeaves) {
    startWithCompanion();
    EXPECT_EQ(ask({"--recover"}).text,
              "There is no orphaned companion of this installation.\nThe service runs already, "
              "as process " +
                  std::to_string(m_service.processId()) + ".\n");
    m_service.kill();
    const Health recovered = ask({"--recover"});
    EXPECT_EQ(recovered.code, 0);
    EXPECT_TRUE(recovered.says("Ended orphaned companion process ") && recovered.says("\nThe service was started.\n"))
        << recovered.text;
    m_installation.awaitRecord("ready", 2);
    EXPECT_EQ(ask().text.substr(0, 3), "OK:");
    // It stops as any other.
    m_service.requestStop();
    EXPECT_TRUE(await([this] { return m_service.hasStopped(); }));
}

TEST_F(HealthTest, KnowsWhatTheManagerHasRegistered) {
    const Installation other("other");
    addHealth(other.bin());
    const Health elsewhere = test::ask(other);
    EXPECT_TRUE(elsewhere.has("service-elsewhere")) << elsewhere.text;
    EXPECT_TRUE(elsewhere.says(pathText(m_installation.program())));
    const Health refused = test::ask(other, {"--recover"});
    EXPECT_EQ(refused.code, 2);
    EXPECT_TRUE(refused.says("The service was not started: the registered service is another installation's, "));
    registerKeri(m_installation.root(), pathText(m_installation.keri()));

    const auto configure = [](DWORD startType, const wchar_t* command) {
        ASSERT_TRUE(::ChangeServiceConfigW(openInstalledService().get(), SERVICE_NO_CHANGE, startType,
                                           SERVICE_NO_CHANGE, command, nullptr, nullptr, nullptr, nullptr, nullptr,
                                           nullptr));
    };
    // Somebody closed the gap that a path with blanks leaves.
    configure(SERVICE_DEMAND_START, (L'"' + m_installation.program().wstring() + L'"').c_str());
    EXPECT_EQ(ask().findings, Names{"service-stopped"});
    configure(SERVICE_DISABLED, nullptr);
    EXPECT_EQ(ask().findings, Names{"service-disabled"});
    const Health disabled = ask({"--recover"});
    EXPECT_EQ(disabled.code, 2);
    EXPECT_TRUE(disabled.says("The service was not started: ")) << disabled.text;
    removeLeftService();
    EXPECT_EQ(ask().findings, Names{"service-missing"});
}

TEST_F(HealthTest, SeesAServiceThatWasStartedByHand) {
    Process console(m_installation.program(), {"service-console"}, m_installation.output());
    m_installation.awaitRecord("ready");
    const Health health = ask();
    EXPECT_EQ(health.findings, Names{"service-foreground"});
    EXPECT_TRUE(health.says("as process " + std::to_string(console.id()))) << health.text;
}

TEST_F(HealthTest, SeesAServiceThatStarts) {
    // A program that never speaks to the manager keeps the service in this state until the manager gives it up.
    m_installation.setCompanion("mute");
    std::filesystem::remove(m_installation.program()); // it is a link
    std::filesystem::copy(m_installation.companion(), m_installation.program());
    std::thread start([] { ::StartServiceW(openInstalledService().get(), 0, nullptr); });
    m_installation.awaitRecord("ready");
    const Health health = ask();
    endProcess(m_installation.records("ready").front().processId, m_installation.root());
    start.join();
    EXPECT_TRUE(health.has("service-starting")) << health.text;
}

TEST_F(HealthTest, SaysWhenTheLogCannotBeRead) {
    startWithCompanion();
    const NS_CORE::ScopedFileHandle held(
        ::CreateFileW(m_installation.logFile().c_str(), GENERIC_READ, /*share=*/0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(held);
    const Health health = ask();
    EXPECT_EQ(health.code, 3);
    EXPECT_EQ(health.findings, Names{"log-unreadable"});
}

} // namespace
} // namespace test
