// Before windows.h, which brings an older socket library otherwise.
#include <winsock2.h>

#include <windows.h>

#include <iphlpapi.h>
#include <winternl.h>

#include <bit>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/text/core_utf8.h"
#include "core/text/core_utf8_win32.h"
#include "health/machine.h"
#include "service/names.h"

namespace health::machine {
namespace {

constexpr DWORD kLongestPath = 32768;

std::wstring toWide(const std::string& text) {
    std::u16string wide;
    if (!NS_CORE::fromUtf8(text, wide)) wide.clear();
    return NS_CORE::systemWide(wide);
}

// The system's words for an error, or its number where it has none.
std::string reasonOf(DWORD error) {
    std::string text = NS_CORE::systemErrorText(error);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == '.' || text.back() == ' '))
        text.pop_back();
    return text.empty() ? "error " + std::to_string(error) : text;
}

constexpr int64_t kTicksPerSecond = 10'000'000;

int64_t toUtc(uint64_t fileTime) {
    constexpr int64_t kSecondsFrom1601To1970 = 11'644'473'600;
    return static_cast<int64_t>(fileTime) / kTicksPerSecond - kSecondsFrom1601To1970;
}

uint64_t ticksOf(FILETIME time) {
    return (uint64_t{time.dwHighDateTime} << 32U) | time.dwLowDateTime;
}

std::string imageOf(HANDLE process) {
    std::wstring path(kLongestPath, L'\0');
    auto size = static_cast<DWORD>(path.size());
    if (!::QueryFullProcessImageNameW(process, /*dwFlags=*/0, path.data(), &size)) return "";
    path.resize(size);
    return NS_CORE::toUtf8(path.c_str());
}

// Looked up by name: linking ntdll would offer a second C runtime to the linker, and the header's enumeration lacks
// some numbers.
NTSTATUS querySystem(ULONG what, void* answer, ULONG size) {
    using Query = NTSTATUS(NTAPI*)(ULONG, void*, ULONG, ULONG*);
    static const auto query =
        std::bit_cast<Query>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
    return query(what, answer, size, nullptr);
}

// Turns "\Device\HarddiskVolume3\dir\file.exe" into "C:\dir\file.exe"; empty when no drive fits.
std::string withDrive(const std::wstring& path) {
    wchar_t drive[] = L"A:";
    for (; drive[0] <= L'Z'; ++drive[0]) {
        wchar_t device[MAX_PATH] = {};
        if (::QueryDosDeviceW(drive, device, MAX_PATH) == 0) continue;
        const std::wstring prefix = std::wstring(device) + L'\\';
        if (path.starts_with(prefix)) return NS_CORE::toUtf8((drive + path.substr(prefix.size() - 1)).c_str());
    }
    return "";
}

// For a plain user, who may not open the processes of others. Unproven under Wine, where everybody may.
std::string imageWithoutHandle(uint32_t processId) {
    constexpr ULONG kSystemProcessIdInformation = 88;
    struct {
        HANDLE processId;
        UNICODE_STRING image;
    } question{};
    std::wstring buffer(kLongestPath / 2, L'\0');
    question.processId = reinterpret_cast<HANDLE>(uintptr_t{processId});
    question.image.MaximumLength = static_cast<USHORT>(buffer.size() * sizeof(wchar_t));
    question.image.Buffer = buffer.data();
    if (querySystem(kSystemProcessIdInformation, &question, sizeof question) != 0) return "";
    buffer.resize(question.image.Length / sizeof(wchar_t));
    return withDrive(buffer);
}

Process processFrom(const SYSTEM_PROCESS_INFORMATION& entry) {
    Process process;
    process.id = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(entry.UniqueProcessId));
    process.parentId = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(entry.InheritedFromUniqueProcessId));
    process.created = static_cast<uint64_t>(entry.CreateTime.QuadPart);
    process.started = toLocal(toUtc(process.created));
    if (entry.ImageName.Buffer)
        process.name =
            NS_CORE::toUtf8(std::wstring(entry.ImageName.Buffer, entry.ImageName.Length / sizeof(wchar_t)).c_str());
    return process;
}

Registration::State stateOf(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return Registration::State::Stopped;
        case SERVICE_START_PENDING:
            return Registration::State::Starting;
        case SERVICE_STOP_PENDING:
            return Registration::State::Stopping;
        default:
            return Registration::State::Running;
    }
}

// Empty, with the system's last error set, when it cannot be opened.
NS_CORE::ScopedServiceHandle openService(const char* name, DWORD rights) {
    const NS_CORE::ScopedServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return NS_CORE::ScopedServiceHandle();
    return NS_CORE::ScopedServiceHandle(::OpenServiceW(manager.get(), toWide(name).c_str(), rights));
}

Registration refused(DWORD error) {
    Registration out;
    out.answer =
        error == ERROR_SERVICE_DOES_NOT_EXIST ? Registration::Answer::NotRegistered : Registration::Answer::Refused;
    out.reason = reasonOf(error);
    return out;
}

// The companion runs as LocalSystem, whose processes administrators may end only with this privilege. A user who does
// not have it is refused later.
void allowDebugging() {
    HANDLE opened = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &opened)) return;
    const NS_CORE::ScopedKernelHandle token(opened);
    TOKEN_PRIVILEGES privileges{1, {{{}, SE_PRIVILEGE_ENABLED}}};
    if (::LookupPrivilegeValueW(/*lpSystemName=*/nullptr, L"SeDebugPrivilege", &privileges.Privileges[0].Luid))
        ::AdjustTokenPrivileges(token.get(), /*DisableAllPrivileges=*/FALSE, &privileges, /*BufferLength=*/0,
                                /*PreviousState=*/nullptr, /*ReturnLength=*/nullptr);
}

bool isSame(HANDLE handle, const Process& process) {
    FILETIME created{};
    FILETIME unused{};
    return ::GetProcessTimes(handle, &created, &unused, &unused, &unused) && ticksOf(created) == process.created &&
           imageOf(handle) == process.image;
}

} // namespace

const bool kIsWindows = true;
const char kSeparator = '\\';
const char* const kServiceFile = "quorkeri_service.exe";
const char* const kHealthFile = "quorkeri_health.exe";

std::vector<Process> processes() {
    // Grows until the answer fits: processes come and go between two calls.
    ULONG size = 1U << 18U;
    std::vector<uint64_t> buffer;
    constexpr NTSTATUS kStatusInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004);
    NTSTATUS status = 0;
    for (;;) {
        buffer.resize(size / sizeof(uint64_t));
        status = querySystem(SystemProcessInformation, buffer.data(), size);
        if (status != kStatusInfoLengthMismatch) break;
        size *= 2;
    }
    std::vector<Process> all;
    if (status != 0) return all;
    const auto* bytes = reinterpret_cast<const char*>(buffer.data());
    for (ULONG next = 1; next != 0; bytes += next) {
        const auto* entry = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(bytes);
        // A process that has ended stays in the list as long as somebody holds it open.
        if (entry->NumberOfThreads != 0) all.push_back(processFrom(*entry));
        next = entry->NextEntryOffset;
    }
    return all;
}

std::string imageOf(uint32_t processId) {
    const NS_CORE::ScopedKernelHandle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, /*bInheritHandle=*/FALSE, processId));
    const std::string image = process ? imageOf(process.get()) : "";
    return image.empty() ? imageWithoutHandle(processId) : image;
}

std::string finalPath(const std::string& path) {
    const NS_CORE::ScopedFileHandle file(::CreateFileW(
        toWide(path).c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr));
    std::wstring text(kLongestPath, L'\0');
    if (!file || ::GetFinalPathNameByHandleW(file.get(), text.data(), kLongestPath, FILE_NAME_NORMALIZED) == 0)
        return path;
    const std::string found = NS_CORE::toUtf8(text.c_str());
    constexpr std::string_view kPrefix = R"(\\?\)";
    return found.starts_with(kPrefix) ? found.substr(kPrefix.size()) : found;
}

uint32_t ownId() {
    return ::GetCurrentProcessId();
}

std::string endProcess(const Process& process) {
    allowDebugging();
    const NS_CORE::ScopedKernelHandle handle(::OpenProcess(
        PROCESS_TERMINATE | PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, /*bInheritHandle=*/FALSE, process.id));
    if (!handle) {
        const DWORD error = ::GetLastError();
        return error == ERROR_INVALID_PARAMETER ? "" : reasonOf(error); // no process has this id any more
    }
    // While the handle is open, the id is not given to another.
    if (!isSame(handle.get(), process)) return "";
    constexpr UINT kExitCode = 1;
    constexpr DWORD kLimitMs = 10'000;
    const BOOL isAsked = ::TerminateProcess(handle.get(), kExitCode);
    const DWORD error = ::GetLastError();
    // TerminateProcess fails for a process that is already ending.
    if (::WaitForSingleObject(handle.get(), isAsked ? kLimitMs : 0) == WAIT_OBJECT_0) return "";
    return isAsked ? "it has not ended within 10 seconds" : reasonOf(error);
}

Registration registration(const char* serviceName) {
    const NS_CORE::ScopedServiceHandle service = openService(serviceName, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
    if (!service) return refused(::GetLastError());
    Registration out;
    out.answer = Registration::Answer::Registered;
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                                &needed))
        return refused(::GetLastError());
    out.state = stateOf(status.dwCurrentState);
    out.processId = status.dwProcessId;
    out.hasAborted = out.state == Registration::State::Stopped && status.dwWin32ExitCode == ERROR_PROCESS_ABORTED;
    // The largest answer that the system gives.
    alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192] = {};
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    if (!::QueryServiceConfigW(service.get(), config, sizeof buffer, &needed)) return refused(::GetLastError());
    out.isDisabled = config->dwStartType == SERVICE_DISABLED;
    out.command = NS_CORE::toUtf8(config->lpBinaryPathName);
    return out;
}

std::string startService(const char* serviceName) {
    const NS_CORE::ScopedServiceHandle service = openService(serviceName, SERVICE_START);
    if (service && ::StartServiceW(service.get(), /*dwNumServiceArgs=*/0, /*lpServiceArgVectors=*/nullptr)) return "";
    const DWORD error = ::GetLastError();
    return error == ERROR_SERVICE_ALREADY_RUNNING ? "" : reasonOf(error);
}

std::optional<std::vector<uint32_t>> portHolders(uint16_t port) {
    DWORD size = 1U << 12U;
    std::vector<uint32_t> buffer;
    DWORD error = 0;
    do {
        buffer.resize(size / sizeof(uint32_t) + 1);
        error = ::GetExtendedUdpTable(buffer.data(), &size, /*bOrder=*/FALSE, AF_INET, UDP_TABLE_OWNER_PID,
                                      /*Reserved=*/0);
    } while (error == ERROR_INSUFFICIENT_BUFFER);
    if (error != NO_ERROR) return std::nullopt;
    const auto* table = reinterpret_cast<const MIB_UDPTABLE_OWNER_PID*>(buffer.data());
    std::vector<uint32_t> ids;
    for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const MIB_UDPROW_OWNER_PID& row = table->table[i];
        const bool isHere = row.dwLocalAddr == ::htonl(INADDR_ANY) || row.dwLocalAddr == ::htonl(INADDR_LOOPBACK);
        if (isHere && row.dwLocalPort == ::htons(port)) ids.push_back(row.dwOwningPid);
    }
    return ids;
}

std::string keriDirectory(const std::string& /*root*/) {
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, toWide(service::kKeriKey).c_str(), /*ulOptions=*/0, KEY_QUERY_VALUE,
                        &opened) != ERROR_SUCCESS)
        return "";
    const NS_CORE::ScopedRegistryKey key(opened);
    std::wstring text(kLongestPath, L'\0');
    DWORD size = kLongestPath * sizeof(wchar_t);
    if (::RegGetValueW(key.get(), /*lpSubKey=*/nullptr, toWide(service::kKeriValue).c_str(), RRF_RT_REG_SZ,
                       /*pdwType=*/nullptr, text.data(), &size) != ERROR_SUCCESS)
        return "";
    return NS_CORE::toUtf8(text.c_str());
}

FileState fileState(const std::string& path) {
    FileState out;
    WIN32_FILE_ATTRIBUTE_DATA data{};
    const InputFile file(path);
    const DWORD error = ::GetLastError();
    if (::GetFileAttributesExW(toWide(path).c_str(), GetFileExInfoStandard, &data)) {
        out.kind = file ? FileState::Kind::There : FileState::Kind::Unreadable;
        out.size = (uint64_t{data.nFileSizeHigh} << 32U) | data.nFileSizeLow;
        out.written = toLocal(toUtc(ticksOf(data.ftLastWriteTime)));
    } else if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
        out.kind = FileState::Kind::Unreadable;
    }
    if (out.kind == FileState::Kind::Unreadable) out.reason = reasonOf(error);
    return out;
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW data{};
    const NS_CORE::ScopedFindHandle search(::FindFirstFileW(toWide(directory + "\\*").c_str(), &data));
    if (!search) return names;
    do names.push_back(NS_CORE::toUtf8(data.cFileName));
    while (::FindNextFileW(search.get(), &data));
    return names;
}

InputFile::InputFile(const std::string& path)
    : m_handle(reinterpret_cast<intptr_t>(::CreateFileW(
          toWide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
          /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, /*hTemplateFile=*/nullptr))) {}

InputFile::~InputFile() {
    const DWORD error = ::GetLastError();
    if (m_handle != kNone) ::CloseHandle(reinterpret_cast<HANDLE>(m_handle));
    ::SetLastError(error);
}

size_t InputFile::read(char* buffer, size_t size) {
    DWORD length = 0;
    return ::ReadFile(reinterpret_cast<HANDLE>(m_handle), buffer, static_cast<DWORD>(size), &length,
                      /*lpOverlapped=*/nullptr)
               ? length
               : 0;
}

std::optional<uint64_t> freeBytes(const std::string& path) {
    ULARGE_INTEGER free{};
    if (!::GetDiskFreeSpaceExW(toWide(path).c_str(), &free, nullptr, nullptr)) return std::nullopt;
    return free.QuadPart;
}

int64_t now() {
    FILETIME time{};
    ::GetSystemTimeAsFileTime(&time);
    return toUtc(ticksOf(time));
}

void print(const std::string& text) {
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    DWORD written = 0;
    if (::GetConsoleMode(output, &mode)) {
        // A console shows bytes in a code page of its own; wide text it shows as it is.
        const std::wstring wide = toWide(text);
        ::WriteConsoleW(output, wide.data(), static_cast<DWORD>(wide.size()), &written, /*lpReserved=*/nullptr);
    } else {
        ::WriteFile(output, text.data(), static_cast<DWORD>(text.size()), &written, /*lpOverlapped=*/nullptr);
    }
}

} // namespace health::machine
