#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"

// The program's own entry, called with whole command lines as another program may write them.
namespace test {
namespace {

// The exit code of the installation's program under this command line.
DWORD run(const Installation& installation, const std::wstring& words, bool isQuoted) {
    const std::wstring program = installation.program().wstring();
    std::wstring line = (isQuoted ? L'"' + program + L'"' : program) + words;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, /*bInheritHandles=*/FALSE, 0, nullptr, nullptr,
                          &startup, &process))
        failWithLastError("CreateProcessW");
    const NS_CORE::ScopedKernelHandle owner(process.hProcess);
    const NS_CORE::ScopedKernelHandle thread(process.hThread);
    EXPECT_EQ(::WaitForSingleObject(process.hProcess, 60'000), DWORD{WAIT_OBJECT_0}) << pathText(line);
    DWORD code = 0;
    EXPECT_TRUE(::GetExitCodeProcess(process.hProcess, &code));
    return code;
}

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

} // namespace
} // namespace test
