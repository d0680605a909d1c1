#include <gtest/gtest.h>

#include <windows.h>

#include <cwchar>
#include <filesystem>
#include <string>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/processes_win32.h"
#include "tests/system/service_manager_win32.h"

// The program's own entry, called with whole command lines as another program may write them.
namespace test {
namespace {

// The exit code of the installation's program under this command line.
DWORD run(const Installation& installation, const std::wstring& words, bool isQuoted) {
    const std::wstring program = installation.program().wstring();
    return exitCodeOf(startProgram((isQuoted ? L'"' + program + L'"' : program) + words, {.inherits = TRUE}));
}

const ChildProgram g_waits("waits", [](const std::vector<std::string>& /*arguments*/) {
    ::Sleep(INFINITE);
    return 0;
});

// Removing a service that is not there says so at once; service mode is what the other words lead to.
TEST(Entry, FindsItsWordsBehindAnyPathAndBesideAnyLetters) {
    removeLeftService();
    const std::string removal = "UTL::Service::run - failed to remove service 'quorkeri_service.exe'";
    const std::string service =
        "UTL::Service::runService - failed to start service control dispather for 'quorkeri_service.exe': " +
        systemText(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    struct Row {
        std::wstring words;
        bool isQuoted;
        const std::string& last;
    };
    const std::vector<Row> rows = {
        {L" service-remove", false, removal},
        {L" service-remove", true, removal},
        {L"   service-remove Жé 測試", false, removal},
        {L" \"service-remove\"", true, removal},
        // A word in front of it is the first word, whatever its letters.
        {L" Жé service-remove", true, service},
    };
    for (const char* const directory : {"Жé測試", "plain"}) {
        for (const Row& row : rows) {
            const Installation installation(directory);
            EXPECT_EQ(run(installation, row.words, row.isQuoted), 1U);
            ASSERT_FALSE(installation.log().empty()) << directory << pathText(row.words);
            EXPECT_EQ(installation.log().back(), row.last) << directory << pathText(row.words);
        }
    }
}

// As the crash guard starts it: with handles of a process and of no file, the patience, and the exit code.
TEST(Entry, AsAWatcherEndsAProcessThatHangsAndDoesNothingElse) {
    const Installation installation;
    const NS_CORE::ScopedKernelHandle hanging = startProgram(fromText(childCommandLine("waits")).wstring());
    ::SetHandleInformation(hanging.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    wchar_t task[64];
    std::swprintf(task, std::size(task), L" quorkeri-crash-watch %x 0 %x %x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(hanging.get())), 100U, 77U);
    EXPECT_EQ(run(installation, task, true), 0U);
    EXPECT_EQ(exitCodeOf(hanging), 77U);
    EXPECT_FALSE(std::filesystem::exists(installation.logFile()));
}

} // namespace
} // namespace test
