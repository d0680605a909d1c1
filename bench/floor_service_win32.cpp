#include <winsock2.h>

#include <windows.h>

#include <atomic>

// The floor that the service is measured against: the same life with the bare system calls and nothing else. It starts
// the companion, waits for its end, starts it again five seconds later, and on a stop request sends the datagram. No
// libraries, no checks, and no log, unless the command line asks for the records that the service commits meanwhile.
namespace {

constexpr wchar_t g_name[] = L"floor_service";
constexpr DWORD kRestartDelayMs = 5000;
constexpr u_short kStopPort = 34002;
constexpr int kStopDatagramSize = 10;

SERVICE_STATUS_HANDLE g_status = nullptr;
std::atomic<bool> g_running{false};
bool g_commitsRecords = false;

// One record of the log, committed by itself.
void commitRecord() {
    if (!g_commitsRecords) return;
    const HANDLE file = ::CreateFileA("floor.log", FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    const char record[] = "2024-03-05 05 07:08:09 UTL::Service::controlHandler - SERVICE_CONTROL_STOP\n";
    DWORD written = 0;
    ::WriteFile(file, record, sizeof(record) - 1, &written, nullptr);
    ::FlushFileBuffers(file);
    ::CloseHandle(file);
}

void report(DWORD state) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    ::SetServiceStatus(g_status, &status);
}

void sendStopDatagram() {
    const SOCKET sender = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = ::htons(kStopPort);
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    const char bytes[kStopDatagramSize] = {};
    ::sendto(sender, bytes, sizeof(bytes), 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    ::closesocket(sender);
}

void WINAPI handleControl(DWORD control) {
    if (control != SERVICE_CONTROL_STOP) return;
    commitRecord(); // the control
    commitRecord(); // the stop
    g_running = false;
    // Before the datagram: the companion's end leads to the last report.
    report(SERVICE_STOP_PENDING);
    sendStopDatagram();
}

void runCompanion() {
    char line[] = "quorkeri_wrapper.exe";
    STARTUPINFOA startup{};
    PROCESS_INFORMATION process{};
    if (!::CreateProcessA(nullptr, line, nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr, &startup,
                          &process)) {
        return;
    }
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ::CloseHandle(process.hProcess);
    ::CloseHandle(process.hThread);
}

void WINAPI serviceMain(DWORD /*argc*/, wchar_t** /*argv*/) {
    g_status = ::RegisterServiceCtrlHandlerW(g_name, &handleControl);
    report(SERVICE_RUNNING);
    g_running = true;
    for (;;) {
        runCompanion();
        if (!g_running) break;
        commitRecord(); // the companion's end
        ::Sleep(kRestartDelayMs);
        if (!g_running) break;
    }
    commitRecord(); // the completion
    report(SERVICE_STOPPED);
}

} // namespace

int WINAPI WinMain(HINSTANCE /*instance*/, HINSTANCE /*previousInstance*/, LPSTR commandLine, int /*showState*/) {
    g_commitsRecords = *commandLine != '\0';
    WSADATA data;
    if (::WSAStartup(MAKEWORD(2, 2), &data) != 0) return 1;
    wchar_t name[] = L"floor_service";
    const SERVICE_TABLE_ENTRYW table[] = {{name, &serviceMain}, {nullptr, nullptr}};
    return ::StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
