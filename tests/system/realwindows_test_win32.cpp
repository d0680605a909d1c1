#include <gtest/gtest.h>
#include <windows.h>

// These need windows.h before them.
#include <dbghelp.h>
#include <softpub.h>
#include <tlhelp32.h>
#include <wintrust.h>

#include <bit>
#include <cstring>
#include <set>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/self_process.h"
#include "tests/support/wine_win32.h"
#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/processes_win32.h"
#include "tests/system/service_manager_win32.h"
#include "tests/system/supervised_service.h"

// What only Windows itself can show. Under Wine a test skips where Wine lacks something, and says what.
namespace test {
namespace {

using NS_CORE::ScopedKernelHandle;
using NS_CORE::ScopedRegistryKey;

// Windows' own library of that name, whatever lies elsewhere.
HMODULE systemLibrary(const wchar_t* name) {
    wchar_t directory[MAX_PATH] = {};
    ::GetSystemDirectoryW(directory, MAX_PATH);
    return ::LoadLibraryW((std::filesystem::path(directory) / name).c_str());
}

template <class Function>
Function findIn(HMODULE module, const char* name) {
    const auto found = std::bit_cast<Function>(::GetProcAddress(module, name));
    if (!found) throw std::runtime_error(std::string("This system has no ") + name);
    return found;
}

#define SKIP_UNDER_WINE(reason) \
    if (isWine()) GTEST_SKIP() << reason

ScopedKernelHandle openProcess(uint32_t processId, DWORD access) {
    ScopedKernelHandle process(::OpenProcess(access, /*bInheritHandle=*/FALSE, processId));
    if (!process) failWithLastError("OpenProcess");
    return process;
}

// A thread of the process that jumps to where there is no code. The crash guard does not cover such a thread.
void crashInForeignThread(uint32_t processId) {
    const ScopedKernelHandle process = openProcess(processId, PROCESS_ALL_ACCESS);
    const auto nowhere = reinterpret_cast<LPTHREAD_START_ROUTINE>(uintptr_t{8});
    const ScopedKernelHandle thread(::CreateRemoteThread(process.get(), nullptr, 0, nowhere, nullptr, 0, nullptr));
    if (!thread) failWithLastError("CreateRemoteThread");
}

// Where the process's own program lies in its memory.
uintptr_t programAddress(uint32_t processId) {
    const NS_CORE::ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, processId));
    MODULEENTRY32W entry{};
    entry.dwSize = sizeof entry;
    if (!::Module32FirstW(snapshot.get(), &entry)) failWithLastError("Module32FirstW");
    return reinterpret_cast<uintptr_t>(entry.modBaseAddr);
}

// A dump as Windows' own symbol library reads it.
class Dump {
public:
    // Brings the service down by a fault of its own, and takes the dump that it leaves.
    Dump(SupervisedService& service, const Installation& installation)
        : m_library(systemLibrary(L"dbghelp.dll")),
          m_read(findIn<decltype(m_read)>(m_library, "MiniDumpReadDumpStream")) {
        std::filesystem::create_directories(installation.root() / "work" / "dumps");
        service.start();
        installation.awaitRecord("ready");
        SelfProcess caller("crash-main-thread");
        caller.read(std::string("called").size());
        // The first thread waits for the end of the service.
        service.requestStop();
        EXPECT_EQ(caller.wait(), 0);
        for (const auto& entry : std::filesystem::directory_iterator(installation.root() / "work" / "dumps"))
            if (entry.path().extension() == ".dmp") m_bytes = readFile(entry.path());
    }

    HMODULE library() const { return m_library; }

    template <class T>
    const T* stream(ULONG kind) const {
        MINIDUMP_DIRECTORY* directory = nullptr;
        void* found = nullptr;
        ULONG size = 0;
        void* const bytes = const_cast<char*>(m_bytes.data());
        if (m_bytes.empty() || !m_read(bytes, kind, &directory, &found, &size))
            throw std::runtime_error("The dump has no stream " + std::to_string(kind));
        return static_cast<const T*>(found);
    }
    std::vector<MINIDUMP_MODULE> modules() const {
        const auto* const list = stream<MINIDUMP_MODULE_LIST>(ModuleListStream);
        return {list->Modules, list->Modules + list->NumberOfModules};
    }
    std::filesystem::path nameOf(const MINIDUMP_MODULE& module) const {
        const auto* const text = at<MINIDUMP_STRING>(module.ModuleNameRva);
        return std::wstring(text->Buffer, text->Length / sizeof(wchar_t));
    }
    // The words on the stack of the thread with the fault, innermost first.
    std::vector<uint32_t> faultingStack() const {
        const DWORD faulting = stream<MINIDUMP_EXCEPTION_STREAM>(ExceptionStream)->ThreadId;
        const auto* const list = stream<MINIDUMP_THREAD_LIST>(ThreadListStream);
        for (const MINIDUMP_THREAD* thread = list->Threads; thread != list->Threads + list->NumberOfThreads; ++thread) {
            if (thread->ThreadId != faulting) continue;
            const MINIDUMP_LOCATION_DESCRIPTOR& memory = thread->Stack.Memory;
            std::vector<uint32_t> words(memory.DataSize / sizeof(uint32_t));
            std::memcpy(words.data(), m_bytes.data() + memory.Rva, words.size() * sizeof(uint32_t));
            return words;
        }
        return {};
    }

private:
    template <class T>
    const T* at(RVA place) const {
        return reinterpret_cast<const T*>(m_bytes.data() + place);
    }

    HMODULE m_library; // stays loaded
    decltype(&::MiniDumpReadDumpStream) m_read;
    std::string m_bytes;
};

BOOL WINAPI outlive(DWORD /*event*/) {
    return TRUE;
}

// program, how, file: runs the service at this console until the file is there, then ends it in this way.
const ChildProgram g_consoleOwner("console-owner", [](const std::vector<std::string>& arguments) {
    ::SetConsoleCtrlHandler(&outlive, TRUE);
    const ScopedKernelHandle process = startProgram(L'"' + fromText(arguments.at(0)).wstring() + L"\" service-console");
    if (!await([&] { return std::filesystem::exists(fromText(arguments.at(2))); })) return 1;
    if (arguments.at(1) == "break")
        ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, 0);
    else
        ::PostMessageW(::GetConsoleWindow(), WM_CLOSE, 0, 0);
    exitCodeOf(process);
    return 0;
});

// The ids of the newest events of the System log that name the service, newest first.
std::set<DWORD> newestEvents(size_t looked) {
    using Log = NS_CORE::ScopedHandle<NS_CORE::Win32HandleTraits<HANDLE, &::CloseEventLog>>;
    const Log log(::OpenEventLogW(nullptr, L"System"));
    if (!log) failWithLastError("OpenEventLogW");
    std::set<DWORD> ids;
    alignas(EVENTLOGRECORD) static BYTE buffer[0x10000];
    DWORD bytes = 0;
    DWORD needed = 0;
    while (looked && ::ReadEventLogW(log.get(), EVENTLOG_BACKWARDS_READ | EVENTLOG_SEQUENTIAL_READ, 0, buffer,
                                     sizeof buffer, &bytes, &needed)) {
        for (DWORD at = 0; at < bytes && looked; --looked) {
            const auto* record = reinterpret_cast<const EVENTLOGRECORD*>(buffer + at);
            const auto* text = reinterpret_cast<const wchar_t*>(buffer + at + record->StringOffset);
            if (record->NumStrings && std::wstring(text) == L"Quorvane Keri Wrapper")
                ids.insert(record->EventID & 0xffff);
            at += record->Length;
        }
    }
    return ids;
}

// Dumps by Windows Error Reporting for the service's program, for the length of a test.
class LocalDumps {
public:
    explicit LocalDumps(const std::filesystem::path& directory) {
        HKEY key = nullptr;
        if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key,
                              nullptr))
            throw std::runtime_error("LocalDumps cannot be set");
        const ScopedRegistryKey owner(key);
        const std::wstring text = directory.wstring();
        const DWORD kMiniDump = 1;
        ::RegSetValueExW(key, L"DumpFolder", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                         static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
        ::RegSetValueExW(key, L"DumpType", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&kMiniDump), sizeof kMiniDump);
    }
    ~LocalDumps() { ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kKey, KEY_WOW64_64KEY, 0); }
    LocalDumps(const LocalDumps&) = delete;
    LocalDumps& operator=(const LocalDumps&) = delete;

private:
    static constexpr const wchar_t* kKey =
        L"SOFTWARE\\Microsoft\\Windows\\Windows Error Reporting\\LocalDumps\\quorkeri_service.exe";
};

TEST(RealWindows, KeepsDataFromBeingExecutedAndMovesTheProgram) {
    SKIP_UNDER_WINE("Wine reports no mitigations and loads every program at its preferred address");
    struct Policy {
        DWORD flags;
        BOOLEAN isPermanent;
    };
    using GetPolicy = BOOL(WINAPI*)(HANDLE, int, void*, SIZE_T);
    const auto getPolicy =
        std::bit_cast<GetPolicy>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetProcessMitigationPolicy"));
    if (!getPolicy) GTEST_SKIP() << "This Windows is older than 8 and cannot be asked for its mitigations";
    const Installation installation;
    SupervisedService service(installation);
    service.start();
    const ScopedKernelHandle process = openProcess(service.processId(), PROCESS_QUERY_INFORMATION);
    constexpr int kDataExecution = 0;
    constexpr int kAddressSpaceLayout = 1;
    Policy dataExecution{};
    ASSERT_TRUE(getPolicy(process.get(), kDataExecution, &dataExecution, sizeof dataExecution));
    EXPECT_EQ(dataExecution.flags & 1U, 1U);
    DWORD layout = 0;
    ASSERT_TRUE(getPolicy(process.get(), kAddressSpaceLayout, &layout, sizeof layout));
    EXPECT_EQ(layout & 1U, 1U) << "bottom-up randomisation";
    constexpr uintptr_t kLinkedFor = 0x400000;
    EXPECT_NE(programAddress(service.processId()), kLinkedFor);
}

TEST(RealWindows, EndsWithItsConsoleAndOnCtrlBreak) {
    SKIP_UNDER_WINE("Wine makes no Ctrl+Break event, and without a screen its console has no window to close");
    for (const std::string how : {"break", "close"}) {
        SCOPED_TRACE(how);
        const Installation installation;
        const std::filesystem::path sign = installation.root() / "now";
        StartOptions options{.flags = CREATE_NEW_CONSOLE};
        options.startup.dwFlags = STARTF_USESHOWWINDOW;
        options.startup.wShowWindow = SW_HIDE;
        const ScopedKernelHandle owner = startProgram(
            fromText(childCommandLine("console-owner", {utf8(installation.program()), how, utf8(sign)})).wstring(),
            options);
        installation.awaitRecord("ready");
        writeFile(sign, "");
        installation.awaitRecord("ending");
        exitCodeOf(owner);
        const std::vector<std::string> log = installation.log();
        ASSERT_GE(log.size(), 2U);
        EXPECT_EQ(log[log.size() - 2], "UTL::Service::signalHandler - 21");
        EXPECT_EQ(log.back(), line::stop);
    }
}

TEST(RealWindows, LoadsNoPlantedLibrary) {
    const Installation installation;
    wchar_t system[MAX_PATH] = {};
    ::GetSystemDirectoryW(system, MAX_PATH);
    // They would load without complaint, from the program's directory and from the one that it works in.
    const std::string library = readFile(std::filesystem::path(system) / "version.dll");
    for (const char* const name : {"bin/dbghelp.dll", "bin/dbgcore.dll", "dbghelp.dll", "version.dll"})
        writeFile(installation.root() / name, library);
    SupervisedService service(installation);
    const Dump dump(service, installation);
    for (const MINIDUMP_MODULE& module : dump.modules()) {
        const std::filesystem::path name = dump.nameOf(module);
        EXPECT_TRUE(name == installation.program() || !pathText(name).starts_with(pathText(installation.root())))
            << name;
    }
    EXPECT_GT(dump.modules().size(), 1U);
    installation.endPrograms();
}

TEST(RealWindows, LeavesADumpThatTheShippedSymbolsExplain) {
    const Installation installation;
    SupervisedService service(installation);
    const Dump dump(service, installation);
    installation.endPrograms();
    const HMODULE library = dump.library();
    const std::filesystem::path symbols = builtFile(SERVICE_SYMBOLS).parent_path().make_preferred();
    // The library keeps the program's file open until the session ends.
    struct Session {
        explicit Session(HMODULE library) : cleanup(findIn<decltype(cleanup)>(library, "SymCleanup")) {}
        ~Session() { cleanup(this); }
        decltype(&::SymCleanup) cleanup;
    } openSession(library);
    const HANDLE session = &openSession; // any value that is not used yet
    ASSERT_TRUE(findIn<decltype(&::SymInitializeW)>(library, "SymInitializeW")(session, symbols.c_str(), FALSE));
    std::set<std::string> names;
    for (const MINIDUMP_MODULE& module : dump.modules()) {
        if (dump.nameOf(module) != installation.program()) continue;
        findIn<decltype(&::SymLoadModuleExW)>(library, "SymLoadModuleExW")(
            session, nullptr, installation.program().c_str(), nullptr, module.BaseOfImage, module.SizeOfImage, nullptr,
            0);
        IMAGEHLP_MODULEW64 found{};
        found.SizeOfStruct = sizeof found;
        EXPECT_TRUE(findIn<decltype(&::SymGetModuleInfoW64)>(library, "SymGetModuleInfoW64")(
            session, module.BaseOfImage, &found));
        if (isWine() && found.SymType != SymPdb) GTEST_SKIP() << "This Wine's symbol library does not read the PDB";
        EXPECT_EQ(found.SymType, SymPdb);
        EXPECT_FALSE(found.PdbUnmatched);
        for (const uint32_t word : dump.faultingStack()) {
            if (word < module.BaseOfImage || word >= module.BaseOfImage + module.SizeOfImage) continue;
            alignas(SYMBOL_INFO) char buffer[sizeof(SYMBOL_INFO) + 1000] = {};
            auto* const symbol = reinterpret_cast<SYMBOL_INFO*>(buffer);
            symbol->SizeOfStruct = sizeof *symbol;
            symbol->MaxNameLen = 1000;
            if (findIn<decltype(&::SymFromAddr)>(library, "SymFromAddr")(session, word, nullptr, symbol))
                names.insert(symbol->Name);
        }
    }
    std::string all;
    for (const std::string& name : names) all += name + '\n';
    const auto has = [&](const char* name) { return all.find(name) != std::string::npos; };
    // Wine knows a public symbol only by the address at which it begins; few such addresses lie on a stack.
    EXPECT_TRUE(has("NS_UTL7Service") || has("NS_UTL::Service") || (isWine() && has("_ZN7service"))) << all;
}

TEST(RealWindows, IsSignedAsAWhole) {
    const std::filesystem::path program = builtFile(SERVICE_PROGRAM).make_preferred();
    const std::string bytes = readFile(program);
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(bytes.data());
    const auto* const nt = reinterpret_cast<const IMAGE_NT_HEADERS32*>(bytes.data() + dos->e_lfanew);
    if (!nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_SECURITY].Size)
        GTEST_SKIP() << "This build is not signed";
    SKIP_UNDER_WINE("Wine does not know the certificates that Windows trusts");
    const auto verify = findIn<LONG(WINAPI*)(HWND, GUID*, void*)>(systemLibrary(L"wintrust.dll"), "WinVerifyTrust");
    for (const std::filesystem::path& file :
         {program, program.parent_path() / "quorkeri_health.exe", program.parent_path() / "packages" / "new.msi"}) {
        if (!std::filesystem::exists(file)) continue; // a build tree keeps them elsewhere, unsigned
        WINTRUST_FILE_INFO info{};
        info.cbStruct = sizeof info;
        const std::wstring name = file.wstring();
        info.pcwszFilePath = name.c_str();
        WINTRUST_DATA data{};
        data.cbStruct = sizeof data;
        data.dwUIChoice = WTD_UI_NONE;
        data.fdwRevocationChecks = WTD_REVOKE_NONE;
        data.dwUnionChoice = WTD_CHOICE_FILE;
        data.pFile = &info;
        GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
        EXPECT_EQ(verify(nullptr, &action, &data), ERROR_SUCCESS) << file;
    }
}

TEST(RealWindows, RefusesAUserWhoIsNoAdministrator) {
    SKIP_UNDER_WINE("Wine's service manager asks for no rights");
    HANDLE own = nullptr;
    ASSERT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_ALL_ACCESS, &own));
    const ScopedKernelHandle ownOwner(own);
    alignas(SID) BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    ASSERT_TRUE(::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size));
    SID_AND_ATTRIBUTES denied{administrators, 0};
    HANDLE restricted = nullptr;
    ASSERT_TRUE(::CreateRestrictedToken(own, DISABLE_MAX_PRIVILEGE, 1, &denied, 0, nullptr, 0, nullptr, &restricted));
    const ScopedKernelHandle restrictedOwner(restricted);

    const Installation installation;
    std::wstring line = L'"' + installation.program().wstring() + L"\" service-install";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    ASSERT_TRUE(::CreateProcessAsUserW(restricted, nullptr, line.data(), nullptr, nullptr, /*bInheritHandles=*/FALSE, 0,
                                       nullptr, nullptr, &startup, &started))
        << ::GetLastError();
    const ScopedKernelHandle process(started.hProcess);
    const ScopedKernelHandle thread(started.hThread);
    EXPECT_EQ(exitCodeOf(process), 1U);
    EXPECT_FALSE(openService());
    EXPECT_EQ(installation.log().at(0),
              "UTL::Service::install - failed to open service manager: " + systemText(ERROR_ACCESS_DENIED));
}

TEST(RealWindows, IsRecoveredByTheManagerThatNamesItsDeathInTheEventLog) {
    SKIP_UNDER_WINE("Wine neither stores recovery actions nor writes events");
    const Installation installation;
    SupervisedService service(installation);
    SC_ACTION action{SC_ACTION_RESTART, 1000};
    SERVICE_FAILURE_ACTIONSW actions{};
    actions.dwResetPeriod = 60;
    actions.cActions = 1;
    actions.lpsaActions = &action;
    ASSERT_TRUE(::ChangeServiceConfig2W(openInstalledService().get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions));
    service.start();
    const uint32_t first = service.processId();
    service.kill();
    const auto isRecovered = [&] {
        const SERVICE_STATUS_PROCESS status = statusOf(openInstalledService());
        return status.dwCurrentState == SERVICE_RUNNING && status.dwProcessId != 0 && status.dwProcessId != first;
    };
    EXPECT_TRUE(await(isRecovered));
    constexpr DWORD kEndedAndIsRecovered = 7031;
    constexpr size_t kEnough = 200;
    EXPECT_TRUE(await([&] { return newestEvents(kEnough).contains(kEndedAndIsRecovered); }));
    installation.endPrograms();
}

TEST(RealWindows, IsDumpedByErrorReportingWhereTheGuardDoesNotReach) {
    SKIP_UNDER_WINE("Wine has no Windows Error Reporting");
    const Installation installation;
    const std::filesystem::path dumps = installation.root() / "dumps";
    std::filesystem::create_directories(dumps);
    const LocalDumps localDumps(dumps);
    SupervisedService service(installation);
    service.start();
    crashInForeignThread(service.processId());
    const auto isDumped = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(dumps)) {
            if (entry.path().extension() == ".dmp" && entry.file_size() > 0) return true;
        }
        return false;
    };
    EXPECT_TRUE(await(isDumped));
    // The reporter may still hold the file.
    EXPECT_TRUE(await([&] { return !processRuns(service.processId(), installation.root()); }));
}

} // namespace
} // namespace test
