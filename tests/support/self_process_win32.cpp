#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/self_process.h"

namespace test {
struct SelfProcess::Process {
    NS_CORE::ScopedKernelHandle process;
    NS_CORE::ScopedKernelHandle output;
};

SelfProcess::SelfProcess(const std::string& childName, const std::vector<std::string>& arguments,
                         StandardError standardError)
    : m_process(std::make_unique<Process>()) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, /*bInheritHandle=*/TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    EXPECT_TRUE(CreatePipe(&readEnd, &writeEnd, &inheritable, 0));
    m_process->output.reset(readEnd);
    const NS_CORE::ScopedKernelHandle childEnd(writeEnd);
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);

    std::string commandLine = childCommandLine(childName, arguments);
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnd;
    startup.hStdError = standardError == StandardError::WithOutput ? writeEnd : GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started{};
    EXPECT_TRUE(CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, /*bInheritHandles=*/TRUE, 0, nullptr,
                               nullptr, &startup, &started));
    m_process->process.reset(started.hProcess);
    const NS_CORE::ScopedKernelHandle thread(started.hThread);
}

SelfProcess::~SelfProcess() {
    kill();
    wait();
}

std::string SelfProcess::read(size_t length) {
    std::string all;
    char buffer[4096];
    DWORD count = 0;
    while (all.size() < length &&
           ReadFile(m_process->output.get(), buffer, static_cast<DWORD>(std::min(sizeof(buffer), length - all.size())),
                    &count, nullptr) &&
           count > 0) {
        all.append(buffer, count);
    }
    return all;
}

void SelfProcess::kill() {
    TerminateProcess(m_process->process.get(), 1);
}

int64_t SelfProcess::wait() {
    WaitForSingleObject(m_process->process.get(), INFINITE);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(m_process->process.get(), &code));
    return code;
}

} // namespace test
