#include "packaging/selftest/selftest_traces_win32.h"

#include <winsock2.h>

#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "core/memory/core_scopedhandle_win32.h"

namespace selftest {
namespace {

using namespace NS_CORE;

constexpr const wchar_t* kService = L"quorkeri_service.exe";
constexpr const wchar_t* kKeriKey =
    L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}";
constexpr const wchar_t* kUninstall = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
constexpr const wchar_t* kMakerKey = L"SOFTWARE\\Quorvane";
constexpr const wchar_t* kSetUpKey = L"SOFTWARE\\Quorvane\\Keri Wrapper";
constexpr const wchar_t* kProductName = L"Quorvane Keri Wrapper";
constexpr const wchar_t* kLocalDumps = L"SOFTWARE\\Microsoft\\Windows\\Windows Error Reporting\\LocalDumps";
constexpr const wchar_t* kReportedPrograms[] = {L"quorkeri_service.exe", L"quorkeri_wrapper.exe"};
constexpr const char* kLocalDumpsNote = "the registry key 'LocalDumps' itself";
constexpr u_short kCompanionPort = 34002;
constexpr DWORD kWaitMs = 20'000;
constexpr DWORD kInstallerWaitMs = 300'000;
constexpr DWORD kLookAgainMs = 50;

bool await(const std::function<bool()>& condition, DWORD waitMs = kWaitMs) {
    for (const ULONGLONG end = ::GetTickCount64() + waitMs; !condition(); ::Sleep(kLookAgainMs)) {
        if (::GetTickCount64() > end) return false;
    }
    return true;
}

// In the 64-bit view, where there is one. Empty when there is no such key.
ScopedRegistryKey openKey(const std::wstring& name) {
    HKEY key = nullptr;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key);
    return ScopedRegistryKey(key);
}

bool removeKey(const std::wstring& name) {
    return !openKey(name) || ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), KEY_WOW64_64KEY, 0) == ERROR_SUCCESS;
}

std::wstring reportingKey(const wchar_t* program) {
    return std::wstring(kLocalDumps) + L'\\' + program;
}

// Below the drive of Windows: where the tests of the packages install, and the packages' own default.
std::wstring directoryOnDrive(const wchar_t* name) {
    wchar_t windows[MAX_PATH] = {};
    ::GetWindowsDirectoryW(windows, MAX_PATH);
    return std::filesystem::path(windows).root_path().wstring() + name;
}
std::wstring installationDirectory() {
    return directoryOnDrive(L"QuorkeriSelftest");
}
std::wstring defaultDirectory() {
    return directoryOnDrive(L"QuorkeriService");
}

bool isThere(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

struct Product {
    std::wstring code; // empty when it is not installed
    std::wstring directory;
};

// The package is a 32-bit one, and its entry lies where this 32-bit program sees it without asking for a view.
Product installedProduct() {
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kUninstall, 0, KEY_READ, &opened) != ERROR_SUCCESS) return {};
    const ScopedRegistryKey programs(opened);
    const auto value = [&](const wchar_t* key, const wchar_t* name) -> std::wstring {
        wchar_t text[1024] = {};
        DWORD size = sizeof text - sizeof *text;
        return ::RegGetValueW(opened, key, name, RRF_RT_REG_SZ, nullptr, text, &size) == ERROR_SUCCESS ? text : L"";
    };
    wchar_t name[256];
    DWORD length = 256;
    for (DWORD i = 0; ::RegEnumKeyExW(opened, i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = 256) {
        if (value(name, L"DisplayName") == kProductName) return {name, value(name, L"InstallLocation")};
    }
    return {};
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

// Ends the processes whose program lies below the directory; returns whether there was none. The handle that ends a
// process also names its program, so a process that got the same id later is left alone.
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

// Deletes the registration if its program lies below `root`; returns whether it did. The manager forgets the service
// once its process has ended and nobody has it open any more.
bool markForDeletion(const std::wstring& root) {
    const ScopedServiceHandle service = openService(SERVICE_QUERY_CONFIG | DELETE);
    return service && liesBelow(programOf(service), root) && ::DeleteService(service.get());
}

// Returns whether no product of the tests is installed any more. An installation goes on after the test that began it.
bool uninstall() {
    const auto isIdle = [] {
        return !ScopedKernelHandle(::OpenMutexW(SYNCHRONIZE, /*bInheritHandle=*/FALSE, L"Global\\_MSIExecute"));
    };
    if (!await(isIdle, kInstallerWaitMs)) return false;
    const Product product = installedProduct();
    if (!liesBelow(product.directory, installationDirectory()) && !liesBelow(product.directory, defaultDirectory()))
        return true;
    std::wstring line = L"msiexec /x " + product.code + L" /qn PURGE=1 STOPTIMEOUT=0";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, /*bInheritHandles=*/FALSE, 0, nullptr, nullptr,
                          &startup, &started))
        return false;
    const ScopedKernelHandle process(started.hProcess);
    const ScopedKernelHandle thread(started.hThread);
    ::WaitForSingleObject(process.get(), kInstallerWaitMs);
    return installedProduct().code.empty();
}

// What an installation that was cut off has written about itself.
void removeSetUpKey() {
    wchar_t directory[1024] = {};
    DWORD size = sizeof directory - sizeof *directory;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kSetUpKey, L"InstallDir", RRF_RT_REG_SZ, nullptr, directory, &size);
    if (!liesBelow(directory, installationDirectory()) && !liesBelow(directory, defaultDirectory())) return;
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSetUpKey);
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kMakerKey); // refused when another product is in it
}

std::string wholeContent(const std::wstring& path) {
    const ScopedFileHandle file(
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    char text[4096];
    DWORD count = 0;
    return file && ::ReadFile(file.get(), text, sizeof text, &count, nullptr) ? std::string(text, count) : "";
}

// Removes a key that the run made above its own ones, unless somebody has put something into it since.
bool removeEmptyKey(const wchar_t* name) {
    const ScopedRegistryKey key = openKey(name);
    DWORD keys = 0;
    DWORD values = 0;
    ::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr, nullptr,
                       nullptr, nullptr);
    return keys != 0 || values != 0 || removeKey(name);
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
    if (!installedProduct().code.empty())
        found.emplace_back(
            "The product is installed here: run the self-test on another machine, or remove the product first.");
    for (const std::wstring& directory : {installationDirectory(), defaultDirectory()}) {
        if (isThere(directory))
            found.emplace_back("The directory '" + std::filesystem::path(directory).string() +
                               "' is there, and the tests install into it: move it away first.");
    }
    if (openKey(kKeriKey))
        found.emplace_back(
            "The Keri software is installed here, and the tests would change its registration: run the self-test on "
            "another machine.");
    for (const wchar_t* program : kReportedPrograms) {
        if (openKey(reportingKey(program)))
            found.emplace_back("Windows Error Reporting has settings for '" + std::filesystem::path(program).string() +
                               "' here (LocalDumps), and the tests would change them: run the self-test on another "
                               "machine.");
    }
    if (!isPortFree())
        found.emplace_back(
            "A program uses UDP port 34002, the companion's: end it first ('netstat -ano -p udp' shows whose it is).");
    return found;
}

bool noteBeforeRun(const std::wstring& journal) {
    const auto text = [](const std::wstring& path) { return std::filesystem::path(path).string(); };
    std::string note = "The self-test makes these while it runs. 'selftest.cmd /clean' removes them.\r\n";
    note += "service quorkeri_service.exe\r\nthe Keri software's uninstall entry\r\n";
    for (const wchar_t* program : kReportedPrograms) note += text(reportingKey(program)) + "\r\n";
    if (!openKey(kLocalDumps)) note += std::string(kLocalDumpsNote) + "\r\n";
    note += "the product, installed in the two directories\r\n" + text(installationDirectory()) + "\r\n" +
            text(defaultDirectory()) + "\r\nthe directory 'work' beside this file\r\n";
    return writeWhole(journal, note);
}

bool isNoted(const std::wstring& journal) {
    return ::GetFileAttributesW(journal.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::string> clean(const std::wstring& journal, const std::wstring& root, const std::wstring& work) {
    std::vector<std::string> left;
    if (!isNoted(journal)) return left;
    if (!uninstall()) left.emplace_back("The product that the tests have installed cannot be removed by msiexec.");
    removeSetUpKey();
    const std::wstring installation = installationDirectory();
    const std::wstring roots[] = {root, installation, defaultDirectory()};
    const bool isOurs = std::any_of(std::begin(roots), std::end(roots), &markForDeletion);
    if (!await([&] { return std::all_of(std::begin(roots), std::end(roots), &endProcessesBelow); }))
        left.emplace_back("A process of the self-test still runs.");
    if (isOurs && !await(isServiceGone))
        left.emplace_back(
            "The service quorkeri_service.exe is still registered; it goes when no program looks at it any more.");
    if (!removeKey(kKeriKey)) left.emplace_back("The tests' entry of the Keri software is still in the registry.");
    for (const wchar_t* program : kReportedPrograms) {
        if (!removeKey(reportingKey(program)))
            left.emplace_back("The tests' settings of Windows Error Reporting (LocalDumps) are still in the registry.");
    }
    if (wholeContent(journal).find(kLocalDumpsNote) != std::string::npos && !removeEmptyKey(kLocalDumps))
        left.emplace_back("The registry key 'LocalDumps' stays.");
    std::error_code error;
    for (const std::wstring& directory : {work, installation}) {
        std::filesystem::remove_all(directory, error);
        if (error)
            left.emplace_back("Files of the self-test stay in '" + std::filesystem::path(directory).string() +
                              "': " + error.message());
    }
    // Whatever is not the product's own in there may be somebody's.
    if (isThere(defaultDirectory()))
        left.emplace_back("The directory '" + std::filesystem::path(defaultDirectory()).string() +
                          "' was made by a test and is not empty: look at it and remove it.");
    if (left.empty() && !::DeleteFileW(journal.c_str())) left.emplace_back("The self-test's note stays.");
    return left;
}

} // namespace selftest
