#include <windows.h>

#include <stdexcept>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/processes_win32.h"
#include "tests/system/service_manager_win32.h"

namespace test {
namespace {

constexpr const wchar_t* kKeriKey =
    L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}";

// As the command-line rules of the program under test read it: a word with a blank stands in double quotes.
std::wstring commandLine(const std::filesystem::path& program, const std::vector<std::string>& words) {
    std::wstring line = L'"' + program.wstring() + L'"';
    for (const std::string& word : words) {
        const bool hasBlank = word.find(' ') != std::string::npos;
        line += hasBlank ? L" \"" + fromText(word).wstring() + L'"' : L' ' + fromText(word).wstring();
    }
    return line;
}

} // namespace

std::string systemText(uint32_t code) {
    char* text = nullptr;
    ::FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code,
                     MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text), 0, nullptr);
    const NS_CORE::ScopedLocalMemory<char> owner(text);
    return text ? text : "";
}

std::string notAProgramText() {
    return systemText(ERROR_BAD_EXE_FORMAT);
}

NS_CORE::ScopedKernelHandle startProgram(std::wstring line, StartOptions options) {
    options.startup.cb = sizeof options.startup;
    PROCESS_INFORMATION started{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, options.inherits, options.flags, nullptr,
                          options.directory, &options.startup, &started))
        failWithLastError("CreateProcessW " + utf8(line));
    // For a program of Linux, Wine 10 returns no process and a number that is no thread's handle. Closing that number
    // would close another handle of this process, which can crash Wine's server.
    if (started.hProcess) ::CloseHandle(started.hThread);
    return NS_CORE::ScopedKernelHandle(started.hProcess);
}

DWORD exitCodeOf(const NS_CORE::ScopedKernelHandle& process) {
    DWORD code = 0;
    if (::WaitForSingleObject(process.get(), INFINITE) != WAIT_OBJECT_0 || !::GetExitCodeProcess(process.get(), &code))
        failWithLastError("GetExitCodeProcess");
    return code;
}

bool processRuns(uint32_t processId, const std::filesystem::path& root) {
    const NS_CORE::ScopedKernelHandle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, /*bInheritHandle=*/FALSE, processId));
    if (!process || ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0) return false;
    wchar_t name[1024];
    DWORD length = 1024;
    if (!::QueryFullProcessImageNameW(process.get(), 0, name, &length)) return false;
    return std::filesystem::path(std::wstring(name, length)).u8string().starts_with(root.u8string());
}

void endProcess(uint32_t processId, const std::filesystem::path& root) {
    if (!processRuns(processId, root)) return;
    const NS_CORE::ScopedKernelHandle process(::OpenProcess(PROCESS_TERMINATE, /*bInheritHandle=*/FALSE, processId));
    constexpr UINT kEndedFromOutside = 99;
    if (process) ::TerminateProcess(process.get(), kEndedFromOutside);
}

void endProcessesBelow(const std::filesystem::path& root) {
    const auto isNobodyLeft = [&] {
        bool isNone = true;
        forEachProcessBelow(root, [&](const PROCESSENTRY32W& entry) {
            endProcess(entry.th32ProcessID, root);
            isNone = false;
        });
        return isNone;
    };
    if (!await(isNobodyLeft)) throw std::runtime_error("a program cannot be ended");
}

void registerKeri(const std::filesystem::path& /*root*/, const std::string& location) {
    HKEY key = nullptr;
    // The 64-bit view, spelled out, so that the entry lies where the Keri software's 32-bit set-up puts it.
    LSTATUS result = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKeriKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY,
                                       nullptr, &key, nullptr);
    if (result != ERROR_SUCCESS) throw std::runtime_error("RegCreateKeyExW: " + std::to_string(result));
    const NS_CORE::ScopedRegistryKey owner(key);
    const std::wstring text = fromText(location).wstring();
    result = ::RegSetValueExW(key, L"InstallLocation", 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    if (result != ERROR_SUCCESS) throw std::runtime_error("RegSetValueExW: " + std::to_string(result));
}

void unregisterKeri(const std::filesystem::path& /*root*/) {
    ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kKeriKey, KEY_WOW64_64KEY, 0);
}

Process::Process(const std::filesystem::path& program, const std::vector<std::string>& words,
                 const std::filesystem::path& output) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, /*bInheritHandle=*/TRUE};
    const NS_CORE::ScopedFileHandle file(::CreateFileW(output.c_str(), FILE_APPEND_DATA,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                       &inheritable, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) failWithLastError("CreateFileW");
    StartOptions options{.directory = L"C:\\", .inherits = TRUE};
    options.startup.dwFlags = STARTF_USESTDHANDLES;
    options.startup.hStdOutput = file.get();
    options.startup.hStdError = file.get();
    NS_CORE::ScopedKernelHandle process = startProgram(commandLine(program, words), options);
    m_id = ::GetProcessId(process.get());
    m_handle = reinterpret_cast<intptr_t>(process.release());
}

Process::~Process() {
    end();
    ::CloseHandle(reinterpret_cast<HANDLE>(m_handle));
}

std::optional<int64_t> Process::awaitExit(std::chrono::milliseconds limit) {
    const auto process = reinterpret_cast<HANDLE>(m_handle);
    if (::WaitForSingleObject(process, static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0) return std::nullopt;
    DWORD code = 0;
    if (!::GetExitCodeProcess(process, &code)) failWithLastError("GetExitCodeProcess");
    m_exitCode = code;
    return m_exitCode;
}

void Process::end() {
    if (m_exitCode) return;
    constexpr UINT kEndedFromOutside = 99;
    ::TerminateProcess(reinterpret_cast<HANDLE>(m_handle), kEndedFromOutside);
    static_cast<void>(awaitExit());
}

HeldDeployment::HeldDeployment(const std::filesystem::path& root) : m_root(root) {
    // A pipe's name may look like a path, so that its directory can be an install location.
    const std::string directory = "\\\\.\\pipe\\quorkeri-" + std::to_string(::GetCurrentProcessId());
    const std::string name = directory + '\\' + kLibraries.front();
    const HANDLE pipe = ::CreateNamedPipeA(name.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE | PIPE_NOWAIT,
                                           /*nMaxInstances=*/1, 0, 0, 0, nullptr);
    if (pipe == INVALID_HANDLE_VALUE) failWithLastError("CreateNamedPipeA");
    m_handle = reinterpret_cast<intptr_t>(pipe);
    registerKeri(root, directory);
}

HeldDeployment::~HeldDeployment() {
    if (m_handle != -1) ::CloseHandle(reinterpret_cast<HANDLE>(m_handle));
}

void HeldDeployment::awaitReader() {
    const auto isRead = [this] {
        ::ConnectNamedPipe(reinterpret_cast<HANDLE>(m_handle), nullptr);
        return ::GetLastError() == ERROR_PIPE_CONNECTED;
    };
    if (!await(isRead)) throw std::runtime_error("nobody reads the held library");
}

void HeldDeployment::release() {
    ::CloseHandle(reinterpret_cast<HANDLE>(m_handle));
    m_handle = -1;
}

} // namespace test
