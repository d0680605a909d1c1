#include <winsock2.h>

#include <windows.h>

#include <winternl.h>

#include "tests/companion/companion_platform.h"

namespace companion {
namespace {

std::string toUtf8(const wchar_t* text, int length) {
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, length, out.data(), needed, nullptr, nullptr);
    return out;
}

std::string toUtf8(const wchar_t* text) {
    return toUtf8(text, static_cast<int>(wcslen(text)));
}

// Both the type and the name of an object come as a counted string at the start of the result.
std::string askObject(HANDLE handle, OBJECT_INFORMATION_CLASS what) {
    alignas(UNICODE_STRING) char answer[4096] = {};
    ULONG size = 0;
    if (NtQueryObject(handle, what, answer, sizeof(answer), &size) != 0) return "";
    const auto* text = reinterpret_cast<const UNICODE_STRING*>(answer);
    return text->Buffer ? toUtf8(text->Buffer, text->Length / static_cast<int>(sizeof(wchar_t))) : "";
}

LONG WINAPI endByException(EXCEPTION_POINTERS* /*exception*/) {
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

std::filesystem::path ownFile() {
    wchar_t buffer[1024];
    return std::filesystem::path(std::wstring(buffer, GetModuleFileNameW(nullptr, buffer, 1024)));
}

std::string commandLine() {
    return toUtf8(GetCommandLineW());
}

std::vector<std::string> openThings() {
    std::vector<std::string> things;
    constexpr uintptr_t kHighest = 0x1000;
    for (uintptr_t value = 4; value < kHighest; value += 4) {
        const auto handle = reinterpret_cast<HANDLE>(value);
        DWORD flags = 0;
        if (!GetHandleInformation(handle, &flags)) continue;
        constexpr auto kObjectNameInformation = static_cast<OBJECT_INFORMATION_CLASS>(1);
        things.push_back(std::to_string(value) + ' ' + askObject(handle, ObjectTypeInformation) + ' ' +
                         askObject(handle, kObjectNameInformation));
    }
    // A detached program has no console and no standard streams.
    for (const DWORD stream : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
        if (GetStdHandle(stream)) things.push_back("stream " + std::to_string(static_cast<int>(stream)));
    }
    if (GetConsoleWindow()) things.push_back("console");
    return things;
}

uint32_t processId() {
    return GetCurrentProcessId();
}

void append(const std::filesystem::path& file, const std::string& bytes) {
    const HANDLE handle =
        CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) endNow(5);
    DWORD written = 0;
    const BOOL done = WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(handle);
    if (!done || written != bytes.size()) endNow(6);
}

bool hold(const std::filesystem::path& file) {
    // Open until the process ends, on purpose.
    return CreateFileW(file.c_str(), GENERIC_READ, /*share=*/0, nullptr, OPEN_EXISTING, 0, nullptr) !=
           INVALID_HANDLE_VALUE;
}

void endNow(int code) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(code));
    for (;;) Sleep(INFINITE);
}

void crash() {
    // The process ends with the exception's code, as after any crash, but no debugger is started first.
    SetUnhandledExceptionFilter(&endByException);
    RaiseException(STATUS_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    endNow(7);
}

StopPort::~StopPort() {
    if (m_socket != -1) closesocket(static_cast<SOCKET>(m_socket));
}

int StopPort::open(uint16_t port) {
    WSADATA data;
    if (const int error = WSAStartup(MAKEWORD(2, 2), &data)) return error;
    const SOCKET handle = socket(AF_INET, SOCK_DGRAM, 0);
    if (handle == INVALID_SOCKET) return WSAGetLastError();
    m_socket = static_cast<intptr_t>(handle);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int result = bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    return result == 0 ? 0 : WSAGetLastError();
}

std::optional<Datagram> StopPort::receive() {
    char bytes[65536];
    sockaddr_in sender{};
    int size = sizeof(sender);
    const int length =
        recvfrom(static_cast<SOCKET>(m_socket), bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&sender), &size);
    if (length < 0) return std::nullopt;
    return Datagram{static_cast<size_t>(length),
                    std::string(inet_ntoa(sender.sin_addr)) + ':' + std::to_string(ntohs(sender.sin_port))};
}

void StopPort::spin() {
    const auto handle = static_cast<SOCKET>(m_socket);
    u_long nonBlocking = 1;
    ioctlsocket(handle, static_cast<long>(FIONBIO), &nonBlocking);
    char byte = 0;
    // A datagram longer than the buffer is an error of its own here, and a datagram all the same.
    while (recv(handle, &byte, sizeof(byte), 0) < 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
    }
}

} // namespace companion
