#include "packaging/selftest/selftest_traces_win32.h"

#include <winsock2.h>

#include <windows.h>

#include <tlhelp32.h>

#include <filesystem>
#include <functional>

#include "core/memory/core_scopedhandle_win32.h"

namespace selftest {
namespace {

using namespace NS_CORE;

constexpr const wchar_t* kService = L"quorkeri_service.exe";
constexpr const wchar_t* kKeriKey =
    L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}";
constexpr u_short kCompanionPort = 34002;
constexpr DWORD kWaitMs = 20'000;
constexpr DWORD kLookAgainMs = 50;

bool await(const std::function<bool()>& condition) {
    for (const ULONGLONG end = ::GetTickCount64() + kWaitMs; !condition(); ::Sleep(kLookAgainMs)) {
        if (::GetTickCount64() > end) return false;
    }
    return true;
}

bool isKeriRegistered() {
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKeriKey, 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, &key) != ERROR_SUCCESS)
        return false;
    const ScopedRegistryKey owner(key);
    return true;
}

bool isPortFree() {
    WSADATA data;
    if (::WSAStartup(MAKEWORD(2, 2), &data) != 0) return false;
    const SOCKET probe = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const BOOL exclusive = TRUE;
    ::setsockopt(probe, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive), sizeof exclusive);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = ::htons(kCompanionPort);
    const bool isFree = ::bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::closesocket(probe);
    ::WSACleanup();
    return isFree;
}

bool liesBelow(const std::wstring& path, const std::wstring& directory) {
    return path.size() > directory.size() && _wcsnicmp(path.c_str(), directory.c_str(), directory.size()) == 0 &&
           path[directory.size()] == L'\\';
}

std::wstring imageOf(HANDLE process) {
    wchar_t name[32768];
    DWORD length = 32768;
    return ::QueryFullProcessImageNameW(process, 0, name, &length) ? std::wstring(name, length) : L"";
}

// True when none runs any more. A process is asked for its program through the handle that ends it, so no other process
// that was given the same id can be meant.
bool endProcessesBelow(const std::wstring& directory) {
    const ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    bool isNone = true;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL found = ::Process32FirstW(snapshot.get(), &entry); found;
         found = ::Process32NextW(snapshot.get(), &entry)) {
        if (entry.th32ProcessID == ::GetCurrentProcessId()) continue;
        const ScopedKernelHandle process(::OpenProcess(
            PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE, FALSE, entry.th32ProcessID));
        if (!process || !liesBelow(imageOf(process.get()), directory) ||
            ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0)
            continue;
        isNone = false;
        ::TerminateProcess(process.get(), 1);
    }
    return isNone;
}

ScopedServiceHandle openService(DWORD access) {
    const ScopedServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return ScopedServiceHandle(::OpenServiceW(manager.get(), kService, access));
}

bool isServiceGone() {
    return !openService(SERVICE_QUERY_STATUS) && ::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
}

std::wstring programOf(const ScopedServiceHandle& service) {
    alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192];
    DWORD needed = 0;
    auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    if (!::QueryServiceConfigW(service.get(), config, sizeof buffer, &needed)) return L"";
    std::wstring path = config->lpBinaryPathName;
    if (path.starts_with(L'"')) path = path.substr(1, path.find(L'"', 1) - 1);
    return path;
}

// The manager forgets a service once its process has ended and nobody looks at it any more. Returns whether that is to
// come.
bool markForDeletion(const std::wstring& root) {
    const ScopedServiceHandle service = openService(SERVICE_QUERY_CONFIG | DELETE);
    return service && liesBelow(programOf(service), root) && ::DeleteService(service.get());
}

bool writeWhole(const std::wstring& path, const std::string& text) {
    const ScopedFileHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH, nullptr));
    DWORD written = 0;
    return file && ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
           written == text.size();
}

} // namespace

std::vector<std::string> obstacles() {
    std::vector<std::string> found;
    const ScopedServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) found.emplace_back("The self-test installs a service: run it from an administrator's prompt.");
    if (!isServiceGone() && manager)
        found.emplace_back(
            "The service quorkeri_service.exe is installed here: run the self-test on another machine, or remove the "
            "service first.");
    if (isKeriRegistered())
        found.emplace_back(
            "The Keri software is installed here, and the tests would change its registration: run the self-test on "
            "another machine.");
    if (!isPortFree())
        found.emplace_back(
            "A program uses UDP port 34002, the companion's: end it first ('netstat -ano -p udp' shows whose it is).");
    return found;
}

bool noteBeforeRun(const std::wstring& journal) {
    return writeWhole(journal,
                      "The self-test makes these while it runs. 'selftest.cmd /clean' removes them.\r\n"
                      "service quorkeri_service.exe\r\nthe Keri software's uninstall entry\r\nthe directory 'work' "
                      "beside this file\r\n");
}

bool isNoted(const std::wstring& journal) {
    return ::GetFileAttributesW(journal.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::string> clean(const std::wstring& journal, const std::wstring& root, const std::wstring& work) {
    std::vector<std::string> left;
    if (!isNoted(journal)) return left;
    const bool goes = markForDeletion(root);
    if (!await([&] { return endProcessesBelow(root); })) left.emplace_back("A process of the self-test still runs.");
    if (goes && !await(isServiceGone))
        left.emplace_back(
            "The service quorkeri_service.exe is still registered; it goes when no program looks at it any more.");
    if (isKeriRegistered() && ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kKeriKey, KEY_WOW64_64KEY, 0) != ERROR_SUCCESS)
        left.emplace_back("The tests' entry of the Keri software is still in the registry.");
    std::error_code error;
    std::filesystem::remove_all(work, error);
    if (error) left.emplace_back("Files of the self-test stay in its directory 'work': " + error.message());
    if (left.empty() && !::DeleteFileW(journal.c_str())) left.emplace_back("The self-test's note stays.");
    return left;
}

} // namespace selftest
