#include "packaging/selftest/selftest_process_win32.h"

#include <windows.h>

#include <atomic>
#include <mutex>
#include <set>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"

namespace selftest {
namespace {

using NS_CORE::ScopedKernelHandle;

constexpr unsigned kEndedByUs = 259 + 1; // STILL_ACTIVE would be taken for a process that runs

std::atomic<bool> g_isEnding{false};
std::mutex g_mutex;
std::set<HANDLE> g_jobs; // borrowed from the calls of runInJob

class ListedJob {
public:
    explicit ListedJob(HANDLE job) : m_job(job) {
        const std::lock_guard lock(g_mutex);
        g_jobs.insert(m_job);
    }
    ~ListedJob() {
        const std::lock_guard lock(g_mutex);
        g_jobs.erase(m_job);
    }
    ListedJob(const ListedJob&) = delete;
    ListedJob& operator=(const ListedJob&) = delete;

private:
    HANDLE m_job;
};

ScopedKernelHandle makeJob() {
    ScopedKernelHandle job(::CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    ::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return job;
}

// The variables of this process with TEMP and TMP replaced, as CreateProcessW wants them.
std::vector<wchar_t> environmentWith(const std::wstring& temporary) {
    std::vector<wchar_t> block;
    wchar_t* const own = ::GetEnvironmentStringsW();
    for (const wchar_t* at = own; *at; at += wcslen(at) + 1) {
        if (_wcsnicmp(at, L"TEMP=", 5) == 0 || _wcsnicmp(at, L"TMP=", 4) == 0) continue;
        block.insert(block.end(), at, at + wcslen(at) + 1);
    }
    ::FreeEnvironmentStringsW(own);
    for (const wchar_t* name : {L"TEMP=", L"TMP="}) {
        const std::wstring variable = name + temporary;
        block.insert(block.end(), variable.c_str(), variable.c_str() + variable.size() + 1);
    }
    block.push_back(L'\0');
    return block;
}

// A file for the output, not a pipe: a program that the test left behind could hold a pipe open for good.
NS_CORE::ScopedFileHandle makeOutputFile(const std::wstring& temporary) {
    wchar_t name[MAX_PATH];
    if (!::GetTempFileNameW(temporary.c_str(), L"out", 0, name)) return {};
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, /*bInheritHandle=*/TRUE};
    return NS_CORE::ScopedFileHandle(::CreateFileW(name, GENERIC_READ | GENERIC_WRITE | DELETE,
                                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inheritable,
                                                   CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
}

std::string wholeContent(HANDLE file) {
    std::string content;
    char block[8192];
    DWORD count = 0;
    ::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    while (::ReadFile(file, block, sizeof block, &count, nullptr) && count) content.append(block, count);
    return content;
}

} // namespace

Ended runInJob(const std::wstring& commandLine, const std::wstring& directory, const std::wstring& temporary,
               unsigned limitSeconds) {
    Ended ended;
    const ScopedKernelHandle job = makeJob();
    const ListedJob listed(job.get());
    if (isEnding()) return ended;
    const NS_CORE::ScopedFileHandle output = makeOutputFile(temporary);
    std::wstring line = commandLine;
    std::vector<wchar_t> environment = environmentWith(temporary);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = startup.hStdError = output.get();
    PROCESS_INFORMATION started{};
    const ULONGLONG began = ::GetTickCount64();
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, /*bInheritHandles=*/TRUE,
                          CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT, environment.data(), directory.c_str(),
                          &startup, &started)) {
        ended.output = "CreateProcessW: error " + std::to_string(::GetLastError());
        return ended;
    }
    const ScopedKernelHandle process(started.hProcess);
    const ScopedKernelHandle thread(started.hThread);
    ended.started = true;
    // Without a job (a system before Windows 8 that runs the self-test in a job itself) only the process is ended.
    ::AssignProcessToJobObject(job.get(), process.get());
    ::ResumeThread(thread.get());
    ended.timedOut = ::WaitForSingleObject(process.get(), limitSeconds * 1000) == WAIT_TIMEOUT;
    if (ended.timedOut) {
        ::TerminateJobObject(job.get(), kEndedByUs);
        ::TerminateProcess(process.get(), kEndedByUs);
        ::WaitForSingleObject(process.get(), INFINITE);
    }
    ::GetExitCodeProcess(process.get(), &ended.exitCode);
    ended.seconds = static_cast<double>(::GetTickCount64() - began) / 1000;
    ended.output = wholeContent(output.get());
    return ended;
}

void endEverything() {
    g_isEnding = true;
    const std::lock_guard lock(g_mutex);
    for (const HANDLE job : g_jobs) ::TerminateJobObject(job, kEndedByUs);
}

bool isEnding() {
    return g_isEnding;
}

} // namespace selftest
