#include <gtest/gtest.h>
#include <windows.h>

#include <csignal>
#include <string>
#include <vector>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"
#include "tests/support/semaphore.h"
#include "tests/utl/utl_service_fixture.h"
#include "utl/utl_service.h"

namespace NS_UTL {
namespace {

using NS_CORE::ScopedServiceHandle;

// One test at a time, whatever process it runs in: all use one name of a service.
class Turn {
public:
    Turn() { ::WaitForSingleObject(m_mutex.get(), INFINITE); }
    ~Turn() { ::ReleaseMutex(m_mutex.get()); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    const NS_CORE::ScopedKernelHandle m_mutex{::CreateMutexA(nullptr, FALSE, "quorkeri_test_service")};
};

// Against the machine's own service control manager; the service is installed, and never started.
class ServiceInstallTest : public ServiceTest {
protected:
    void SetUp() override { makeHost({}, {}); }
    ~ServiceInstallTest() override {
        const ScopedServiceHandle service = open();
        if (service) ::DeleteService(service.get());
    }
    ScopedServiceHandle open() const {
        return ScopedServiceHandle(::OpenServiceA(m_manager.get(), kName, SERVICE_ALL_ACCESS));
    }
    static std::string program() { return test::thisProgram(); }
    static std::string text(DWORD error) { return NS_CORE::systemErrorText(error); }

    const Turn m_turn;
    const ScopedServiceHandle m_manager{::OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    const Lines m_installed = {"INFO UTL::Service::run - installed service 'quorkeri_test_service' running '" +
                               program() + "'"};
};

// What the manager has stored is service_manager_test_win32.cpp's; the log's levels show here alone.
TEST_F(ServiceInstallTest, InstallsTwiceAndRemovesOnce) {
    EXPECT_EQ(run({"program", "service-install"}), 0);
    EXPECT_EQ(run({"program", "service-install"}), 0);
    EXPECT_EQ(run({"program", "service-remove"}), 0);
    EXPECT_FALSE(open());
    EXPECT_EQ(run({"program", "service-remove"}), 1);
    EXPECT_EQ(m_journal.entries(),
              (Lines{m_installed[0], m_installed[0], "INFO UTL::Service::run - removed service 'quorkeri_test_service'",
                     "CRIT UTL::Service::remove - failed to open service 'quorkeri_test_service': " +
                         text(ERROR_SERVICE_DOES_NOT_EXIST),
                     "WARN UTL::Service::run - failed to remove service 'quorkeri_test_service'"}));
}

TEST_F(ServiceInstallTest, AServiceHeldOpenByAnotherProgramCannotBeDeletedTwiceOrInstalledAgain) {
    EXPECT_EQ(run({"program", "service-install"}), 0);
    const ScopedServiceHandle held = open();
    EXPECT_EQ(run({"program", "service-remove"}), 0);
    m_journal.clear();
    EXPECT_EQ(run({"program", "service-remove"}), 1);
    EXPECT_EQ(run({"program", "service-install"}), 1);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"CRIT UTL::Service::remove - failed to delete service 'quorkeri_test_service': " +
                         text(ERROR_SERVICE_MARKED_FOR_DELETE),
                     "WARN UTL::Service::run - failed to remove service 'quorkeri_test_service'",
                     "CRIT UTL::Service::install - failed to create service 'quorkeri_test_service': " +
                         text(ERROR_SERVICE_MARKED_FOR_DELETE),
                     "WARN UTL::Service::run - failed to install service 'quorkeri_test_service' running '" +
                         program() + "'"}));
}

TEST_F(ServiceInstallTest, ANameThatTheManagerRefusesIsACriticalMessage) {
    EXPECT_FALSE(m_host->install("", "Test Service", program()));
    const Lines entries = m_journal.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_TRUE(entries[0].starts_with("CRIT UTL::Service::install - failed to create service '': ")) << entries[0];
}

DWORD g_managerRights = 0;
DWORD g_serviceRights = 0;

SC_HANDLE WINAPI refuseManager(LPCSTR /*machine*/, LPCSTR /*database*/, DWORD rights) {
    g_managerRights = rights;
    ::SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

SC_HANDLE WINAPI openAndNote(SC_HANDLE manager, LPCSTR name, DWORD rights) {
    g_serviceRights = rights;
    return ::OpenServiceW(manager, std::wstring(name, name + strlen(name)).c_str(), rights);
}

TEST_F(ServiceInstallTest, AManagerThatRefusesIsAWarningOfBothModes) {
    const test::ImportHook hook("OpenSCManagerA", &refuseManager);
    EXPECT_EQ(run({"program", "service-install"}), 1);
    EXPECT_EQ(g_managerRights, 0xF003FU);
    EXPECT_EQ(run({"program", "service-remove"}), 1);
    const std::string reason = text(ERROR_ACCESS_DENIED);
    EXPECT_EQ(
        m_journal.entries(),
        (Lines{"WARN UTL::Service::install - failed to open service manager: " + reason,
               "WARN UTL::Service::run - failed to install service 'quorkeri_test_service' running '" + program() + "'",
               "WARN UTL::Service::remove - failed to open service manager: " + reason,
               "WARN UTL::Service::run - failed to remove service 'quorkeri_test_service'"}));
}

TEST_F(ServiceInstallTest, RemovalAsksForItsOwnRights) {
    EXPECT_EQ(run({"program", "service-install"}), 0);
    const test::ImportHook hook("OpenServiceA", &openAndNote);
    EXPECT_EQ(run({"program", "service-remove"}), 0);
    EXPECT_EQ(g_serviceRights, 0xF003FU);
}

BOOL WINAPI refuseDirectory(LPCSTR /*path*/) {
    return FALSE;
}

DWORD WINAPI cutPath(HMODULE /*module*/, LPSTR /*path*/, DWORD size) {
    return size;
}

TEST_F(ServiceTest, FailsACheckWhenTheProgramsDirectoryCannotBeEntered) {
    const test::LogRecorder log;
    const test::ImportHook hook("SetCurrentDirectoryA", &refuseDirectory);
    const Service host("", "name", "display", m_logs.file(""), "service.log", {}, {});
    EXPECT_EQ(m_hook.single(), (test::FailedCheck{"CHECKF", "utl_service", 34, 0, ""}));
}

TEST_F(ServiceTest, FailsACheckWhenTheProgramsPathIsTooLongToInstall) {
    makeHost({}, {});
    const test::ImportHook hook("GetModuleFileNameA", &cutPath);
    EXPECT_EQ(run({"program", "service-install"}), 1);
    EXPECT_EQ(m_hook.single(), (test::FailedCheck{"CHECKF", "utl_service", 70, 0, ""}));
    EXPECT_EQ(m_journal.entries(), Lines{"WARN CORE::Dir::getModuleFilename - buffer to small"});
}

// As the system tells of an event: on a thread of its own that begins in its own code. Nothing under Wine makes these.
// Returns how a wait for the thread ends.
DWORD announce(DWORD event, DWORD milliseconds, test::Semaphore* stopped) {
    const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernelbase.dll"), "CtrlRoutine")));
    const NS_CORE::ScopedKernelHandle thread(
        ::CreateThread(nullptr, 0, routine, reinterpret_cast<void*>(uintptr_t{event}), 0, nullptr));
    if (stopped) stopped->acquire();
    return ::WaitForSingleObject(thread.get(), milliseconds);
}

const test::ChildProgram g_closed("console-closed", [](const std::vector<std::string>& arguments) {
    test::Semaphore stopped;
    const auto event = static_cast<DWORD>(std::stoul(arguments.at(0)));
    const bool isOver = arguments.size() > 2; // console mode, when the event comes
    Service host(
        "", "name", "display", arguments.at(1), "service.log",
        [&](int, char**) {
            // The system would end the process as soon as the thread ends.
            if (!isOver && announce(event, 300, &stopped) != WAIT_TIMEOUT)
                ::TerminateProcess(::GetCurrentProcess(), 99);
            return 5;
        },
        [&] { stopped.release(); });
    char program[] = "program";
    char word[] = "service-console";
    char* argv[] = {program, word, nullptr};
    const int result = host.run(2, argv);
    Service::clearInstance();
    if (isOver) announce(event, 60000, nullptr);
    return result;
});

TEST_F(ServiceTest, ConsoleModeStopsAndEndsByItselfWhenItsConsoleEnds) {
    for (const int event : {CTRL_CLOSE_EVENT, CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT}) {
        const test::TempDir logs;
        EXPECT_EQ(test::runAndWait(
                      test::childCommandLine("console-closed", {std::to_string(event), test::utf8(logs.path())})),
                  5);
        EXPECT_TRUE(test::readFile(logs.path() / "service.log").ends_with(" UTL::Service::signalHandler - 21\n"));
    }
    // After console mode the system ends the process.
    EXPECT_EQ(test::runAndWait(test::childCommandLine(
                  "console-closed", {std::to_string(CTRL_CLOSE_EVENT), test::utf8(m_logs.path()), "over"})),
              0);
}

TEST_F(ServiceTest, ConsoleModeAnswersEachOfItsThreeSignalsAndPutsTheHandlersBack) {
    makeHost(
        [](int, char**) {
            for (const int signum : {SIGINT, SIGTERM, SIGBREAK}) std::raise(signum);
            return 5;
        },
        [this] { m_journal.add("stop"); });
    EXPECT_EQ(run({"program", "service-console"}), 5);
    EXPECT_EQ(m_journal.entries(),
              (Lines{"INFO UTL::Service::signalHandler - 2", "stop", "INFO UTL::Service::signalHandler - 15", "stop",
                     "INFO UTL::Service::signalHandler - 21", "stop"}));
    for (const int signum : {SIGINT, SIGTERM, SIGBREAK}) EXPECT_EQ(std::signal(signum, SIG_DFL), SIG_DFL);
}

} // namespace
} // namespace NS_UTL
