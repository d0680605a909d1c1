#include "core/stack/core_stacktrace.h"

#include <gtest/gtest.h>
#include <windows.h>
// tlhelp32.h needs windows.h before it.
#include <tlhelp32.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_symbollibrary_win32.h"
#include "core/stack/core_symbollock.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace {

using NS_CORE::StackTrace;
using NS_CORE::SymbolLibrary;
using Lines = std::vector<std::string>;

constexpr DWORD64 kAddress = 0x401000;
constexpr DWORD kSomeError = 487;

// What the replaced functions do, and what they were called with.
struct {
    bool initialises = true;
    bool findsSymbol = true;
    bool findsModule = true;
    bool loads = false;
    int undecorateFailures = 0;
    DWORD error = kSomeError; // that failing functions leave
    int invalidSnapshots = 0;
    std::string path;
    Lines calls;
    std::vector<DWORD64> bases;
} g_library;

BOOL fail() {
    ::SetLastError(g_library.error);
    return FALSE;
}

void note(const char* call) {
    g_library.calls.emplace_back(call);
}

BOOL WINAPI initialize(HANDLE process, PCSTR path, BOOL invades) {
    EXPECT_EQ(process, ::GetCurrentProcess());
    EXPECT_FALSE(invades);
    g_library.path = path;
    note("initialize");
    return g_library.initialises ? TRUE : fail();
}

BOOL WINAPI cleanup(HANDLE) {
    note("cleanup");
    return TRUE;
}

DWORD WINAPI getOptions() {
    return 0x2;
}

DWORD WINAPI setOptions(DWORD options) {
    EXPECT_EQ(options, 0x212U) << "lines, no boxes for errors, and what was set";
    note("setOptions");
    return options;
}

BOOL WINAPI getSearchPath(HANDLE, PSTR, DWORD size) {
    EXPECT_EQ(size, 1024U);
    note("getSearchPath");
    return TRUE;
}

DWORD64 WINAPI loadModule(HANDLE, HANDLE file, PCSTR, PCSTR, DWORD64 base, DWORD) {
    EXPECT_EQ(file, nullptr);
    g_library.bases.push_back(base);
    if (g_library.error != 0) fail();
    return g_library.loads ? base : 0;
}

// One frame, then the end.
BOOL WINAPI walk(DWORD machine, HANDLE process, HANDLE thread, LPSTACKFRAME64 frame, PVOID context,
                 PREAD_PROCESS_MEMORY_ROUTINE64 read, PFUNCTION_TABLE_ACCESS_ROUTINE64 table,
                 PGET_MODULE_BASE_ROUTINE64 base, PTRANSLATE_ADDRESS_ROUTINE64 translate) {
    const auto& registers = *static_cast<CONTEXT*>(context);
    EXPECT_EQ(machine, 0x14cU);
    EXPECT_TRUE(process == ::GetCurrentProcess() && thread == ::GetCurrentThread());
    EXPECT_EQ(registers.ContextFlags, 0x10007U);
    EXPECT_TRUE(frame->AddrPC.Offset == registers.Eip && frame->AddrPC.Mode == AddrModeFlat);
    EXPECT_TRUE(frame->AddrFrame.Offset == registers.Ebp && frame->AddrFrame.Mode == AddrModeFlat);
    EXPECT_TRUE(frame->AddrStack.Offset == registers.Esp && frame->AddrStack.Mode == AddrModeFlat);
    EXPECT_TRUE(!read && !translate && table == SymbolLibrary::get()->functionTable &&
                base == SymbolLibrary::get()->moduleBase);
    frame->AddrPC.Offset = kAddress;
    frame->AddrReturn.Offset = 0;
    return TRUE;
}

BOOL WINAPI getSymbol(HANDLE, DWORD64 address, PDWORD64 displacement, PIMAGEHLP_SYMBOL64 symbol) {
    EXPECT_EQ(address, kAddress);
    EXPECT_EQ(displacement, nullptr);
    EXPECT_TRUE(symbol->SizeOfStruct == 0x20 && symbol->MaxNameLength == 1024);
    std::strcpy(symbol->Name, "raw");
    return g_library.findsSymbol ? TRUE : fail();
}

DWORD WINAPI undecorate(PCSTR name, PSTR buffer, DWORD size, DWORD flags) {
    EXPECT_STREQ(name, "raw");
    EXPECT_EQ(size, 1024U);
    if (g_library.undecorateFailures-- > 0) return 0;
    std::strcpy(buffer, flags == 0x1000 ? "short" : "complete");
    return 1;
}

BOOL WINAPI getLine(HANDLE, DWORD64 address, PDWORD displacement, PIMAGEHLP_LINE64 line) {
    static char file[] = "C:\\src\\a.cpp";
    EXPECT_EQ(address, kAddress);
    EXPECT_NE(displacement, nullptr);
    EXPECT_EQ(line->SizeOfStruct, 0U) << "left open on purpose";
    line->FileName = file;
    line->LineNumber = 7;
    return TRUE;
}

BOOL WINAPI getModule(HANDLE, DWORD64 address, PIMAGEHLP_MODULE64 module) {
    EXPECT_EQ(address, kAddress);
    EXPECT_EQ(module->SizeOfStruct, 0x690U);
    std::strcpy(module->ImageName, "C:\\a.exe");
    std::strcpy(module->LoadedPdbName, "C:\\a.pdb");
    return g_library.findsModule ? TRUE : fail();
}

HANDLE WINAPI createSnapshot(DWORD flags, DWORD process) {
    EXPECT_EQ(flags, DWORD{TH32CS_SNAPMODULE});
    EXPECT_EQ(process, 0U);
    note("snapshot");
    // Any handle that can be closed.
    return g_library.invalidSnapshots-- > 0 ? INVALID_HANDLE_VALUE : ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
}

BOOL WINAPI firstModule(HANDLE, LPMODULEENTRY32 entry) {
    EXPECT_EQ(entry->dwSize, 0x224U);
    entry->modBaseAddr = reinterpret_cast<BYTE*>(uintptr_t{0x400000});
    return TRUE;
}

BOOL WINAPI nextModule(HANDLE, LPMODULEENTRY32 entry) {
    if (g_library.bases.size() % 2 == 0) return FALSE;
    entry->modBaseAddr = reinterpret_cast<BYTE*>(uintptr_t{0x80001000});
    return TRUE;
}

// Traces with functions of the test in place of the system's.
class SymbolLibraryTest : public testing::Test {
protected:
    SymbolLibraryTest() : m_real(*SymbolLibrary::get()) {
        g_library = {};
        *SymbolLibrary::get() = {&initialize,          &cleanup,          &getOptions, &setOptions,     &getSearchPath,
                                 &loadModule,          &getSymbol,        &undecorate, &getLine,        &getModule,
                                 m_real.functionTable, m_real.moduleBase, &walk,       m_real.writeDump};
    }
    ~SymbolLibraryTest() override { *SymbolLibrary::get() = m_real; }

    // The only frame of a walk without modules.
    static StackTrace::Frame frame() {
        const test::ImportHook first("Module32First", &noModule);
        StackTrace trace;
        std::vector<StackTrace::Frame> frames;
        EXPECT_TRUE(trace.getStack(frames, StackTrace::kMaxFrames));
        EXPECT_EQ(frames.size(), 1U);
        return frames.empty() ? StackTrace::Frame() : frames.front();
    }
    static BOOL WINAPI noModule(HANDLE, LPMODULEENTRY32) { return FALSE; }

    const SymbolLibrary m_real;
    const test::LogRecorder m_log{/*hasNorm=*/true};
};

TEST_F(SymbolLibraryTest, IsInitialisedForTheDirectoriesOfTheProcess) {
    const test::TempDir dir;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    const std::string program = test::utf8(test::fromText(test::thisProgram()).parent_path());
    const std::string root = std::getenv("SYSTEMROOT");
    const std::string path =
        test::utf8(dir.path()) + ';' + program + ';' + program + "\\symbols;" + root + ';' + root + "\\system32;";
    {
        const StackTrace trace;
        EXPECT_EQ(g_library.path, path);
    }
    g_library.initialises = false;
    // Whoever is told of a record may have other threads trace.
    test::setGlobalObserver([](const auto& /*record*/) {
        std::thread([] { EXPECT_TRUE(NS_CORE::SymbolLock(/*timeoutMs=*/10).isHeld()); }).join();
    });
    StackTrace none;
    NS_CORE::MasterLogger::setGlobalObserver(nullptr);
    std::vector<StackTrace::Frame> frames;
    EXPECT_FALSE(none.getStack(frames, 1));
    std::filesystem::current_path(before);
    EXPECT_EQ(g_library.calls, (Lines{"initialize", "setOptions", "getSearchPath", "cleanup", "initialize"}));
    EXPECT_EQ(m_log.lines(), (Lines{"NORM NS_CORE::StackTrace::StackTrace - failed to initialise symbols from " + path,
                                    "WARN Log at core_stacktrace_win32:186 (NS_CORE::StackTrace::getStack)"}));
}

// As the system does with a path that is longer than the buffer.
DWORD WINAPI cutPath(HMODULE, LPSTR path, DWORD size) {
    std::memset(path, 'p', size);
    path[1] = '\\';
    return size;
}

TEST_F(SymbolLibraryTest, TakesTheDirectoryOfACutPath) {
    const test::ImportHook hook("GetModuleFileNameA", &cutPath);
    const StackTrace trace;
    EXPECT_NE(g_library.path.find(";p;p\\symbols;"), std::string::npos) << g_library.path;
}

UINT g_directoryLength = 0;
int g_loads = 0;

UINT WINAPI tellLength(LPWSTR /*directory*/, UINT /*size*/) {
    return g_directoryLength;
}

HMODULE WINAPI countLoad(LPCWSTR /*path*/, HANDLE /*file*/, DWORD /*flags*/) {
    ++g_loads;
    return nullptr;
}

// The system's directory is unknown, or its path does not fit. Then the library is looked for nowhere else.
const test::ChildProgram g_noLibrary("without-symbol-library", [](const std::vector<std::string>&) {
    const test::ImportHook asking("GetSystemDirectoryW", &tellLength);
    const test::ImportHook loading("LoadLibraryExW", &countLoad);
    for (const UINT length : {0U, MAX_PATH + 1U}) {
        g_directoryLength = length;
        if (StackTrace::loadModule(::GetCurrentProcess(), "a.dll", "a", 0x400000, 4096)) return 0;
        if (StackTrace().toText() != "Failed to get stack") return 0;
    }
    return g_loads == 0 ? 7 : 0;
});

TEST(SymbolLibrary, MayBeMissing) {
    EXPECT_EQ(test::runAndWait(test::childCommandLine("without-symbol-library")), 7);
}

TEST_F(SymbolLibraryTest, StaysInitialisedUntilTheLastTraceOfTheThreadEnds) {
    {
        const StackTrace outer;
        const StackTrace inner;
    }
    const StackTrace next;
    EXPECT_EQ(g_library.calls, (Lines{"initialize", "setOptions", "getSearchPath", "setOptions", "getSearchPath",
                                      "cleanup", "initialize", "setOptions", "getSearchPath"}));
}

TEST_F(SymbolLibraryTest, GivesAFrameWhatItFindsAndTheLogWhatItDoesNot) {
    const StackTrace::Frame whole{"C:\\a.exe", "C:\\a.pdb", "short()", "C:\\src\\a.cpp", 7};
    EXPECT_EQ(frame(), whole);
    for (const auto& [failures, name] : {std::pair{1, "complete()"}, {2, "raw()"}}) {
        g_library.undecorateFailures = failures;
        EXPECT_EQ(frame().symbol, name);
    }
    EXPECT_EQ(m_log.lines(), Lines());
    g_library.findsSymbol = false;
    for (const DWORD error : {kSomeError, DWORD{0}}) {
        g_library.error = error;
        EXPECT_EQ(frame(), (StackTrace::Frame{whole.image, whole.pdb, "", whole.file, whole.line}));
    }
    g_library.findsSymbol = true;
    g_library.findsModule = false;
    EXPECT_EQ(frame(), (StackTrace::Frame{"", "", whole.symbol, whole.file, whole.line}));
    const std::string function = "NORM NS_CORE::StackTrace::getStack - ";
    EXPECT_EQ(m_log.lines(),
              (Lines{function + "failed to get symbol from addr 4198400 : 487",
                     function + "failed to get symbol from addr 4198400 : 0", function + "failed to get module info"}));
}

TEST_F(SymbolLibraryTest, KnowsTheModulesOfTheFirstSnapshotThatSucceeds) {
    const test::ImportHook snapshot("CreateToolhelp32Snapshot", &createSnapshot);
    const test::ImportHook first("Module32First", &firstModule);
    const test::ImportHook next("Module32Next", &nextModule);
    g_library.invalidSnapshots = 1;
    g_library.error = 0; // known already, which is no failure
    StackTrace trace;
    g_library.calls.clear();
    std::vector<StackTrace::Frame> frames;
    for (int walks = 0; walks < 3; ++walks) EXPECT_TRUE(trace.getStack(frames, StackTrace::kMaxFrames));
    EXPECT_EQ(g_library.calls, (Lines{"snapshot", "snapshot"}));
    EXPECT_EQ(g_library.bases, (std::vector<DWORD64>{0x400000, 0xffffffff80001000}));
    for (const bool loads : {false, true}) {
        g_library.loads = loads;
        g_library.error = loads ? kSomeError : 0;
        ::SetLastError(kSomeError);
        EXPECT_TRUE(StackTrace::loadModule(::GetCurrentProcess(), "a.dll", "a", 0x400000, 4096));
    }
    EXPECT_EQ(m_log.lines(), Lines());
}

} // namespace
