#include "core/stack/core_stacktrace.h"

#include <windows.h>
// tlhelp32.h needs windows.h before it.
#include <tlhelp32.h>

#include <cstddef>

#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/stack/core_stacktrace_platform.h"
#include "core/stack/core_symbollibrary_win32.h"

namespace NS_CORE {

namespace {

using stacktrace_platform::walkStep;
using stacktrace_platform::WalkStep;

constexpr DWORD kBufferSize = 1024; // of paths, and of names

static_assert(sizeof(IMAGEHLP_MODULE64) == 0x690, "with the fields on the PDB and the machine type");
static_assert(sizeof(MODULEENTRY32) == 0x224, "the narrow form");

// The path that a call wrote to the buffer; empty if the call failed or the buffer was too small.
std::string pathIn(const char* buffer, DWORD length) {
    return length <= kBufferSize ? std::string(buffer, length) : std::string();
}

std::string currentDirectory() {
    char buffer[kBufferSize] = {};
    return pathIn(buffer, ::GetCurrentDirectoryA(kBufferSize, buffer));
}

std::string systemRoot() {
    char buffer[kBufferSize] = {};
    return pathIn(buffer, ::GetEnvironmentVariableA("SYSTEMROOT", buffer, kBufferSize));
}

std::string executableDirectory() {
    char buffer[kBufferSize] = {};
    return moduleDirectory(pathIn(buffer, ::GetModuleFileNameA(/*hModule=*/nullptr, buffer, kBufferSize)));
}

// The symbol library's record with room for the name behind its head.
struct SymbolBuffer {
    SymbolBuffer() {
        symbol()->SizeOfStruct = kHeadSize;
        symbol()->MaxNameLength = kBufferSize;
    }
    IMAGEHLP_SYMBOL64* symbol() { return reinterpret_cast<IMAGEHLP_SYMBOL64*>(m_bytes); }

private:
    static constexpr DWORD kHeadSize = 0x20;
    static_assert(sizeof(IMAGEHLP_SYMBOL64) == kHeadSize);
    alignas(IMAGEHLP_SYMBOL64) std::byte m_bytes[kHeadSize + kBufferSize] = {};
};

// The symbol library undecorates names in Microsoft's mangling, and returns the compiler's own unchanged.
std::string undecorated(const SymbolLibrary& library, const char* name) {
    char buffer[kBufferSize] = {};
    for (const DWORD form : {DWORD{UNDNAME_NAME_ONLY}, DWORD{UNDNAME_COMPLETE}}) {
        if (library.undecorate(name, buffer, kBufferSize, form) != 0) return readableName(buffer);
    }
    return readableName(name);
}

std::string symbolAt(const SymbolLibrary& library, HANDLE process, DWORD64 address) {
    SymbolBuffer buffer;
    if (library.getSymbol(process, address, /*Displacement=*/nullptr, buffer.symbol()) == FALSE) {
        const DWORD error = ::GetLastError();
        MLOG(Norm, "NS_CORE::StackTrace::getStack", "failed to get symbol from addr %d : %d", address, error);
        return {};
    }
    return undecorated(library, buffer.symbol()->Name) + "()";
}

void findLine(const SymbolLibrary& library, HANDLE process, DWORD64 address, StackTrace::Frame& frame) {
    // The record's size stays 0, as it always has been. A library that insists on it fails, and the line stays unknown.
    IMAGEHLP_LINE64 line{};
    DWORD displacement = 0;
    if (library.getLine(process, address, &displacement, &line) == FALSE) return;
    frame.line = line.LineNumber;
    if (line.FileName != nullptr) frame.file = line.FileName;
}

void findModule(const SymbolLibrary& library, HANDLE process, DWORD64 address, StackTrace::Frame& frame) {
    IMAGEHLP_MODULE64 module{};
    module.SizeOfStruct = sizeof(module);
    if (library.getModule(process, address, &module) == FALSE) {
        MLOG(Norm, "NS_CORE::StackTrace::getStack", "failed to get module info");
        return;
    }
    frame.image = module.ImageName;
    frame.pdb = module.LoadedPdbName;
}

StackTrace::Frame describe(const SymbolLibrary& library, HANDLE process, DWORD64 address) {
    StackTrace::Frame frame;
    frame.symbol = symbolAt(library, process, address);
    findLine(library, process, address, frame);
    findModule(library, process, address, frame);
    return frame;
}

// Traces that live on the thread that holds the SymbolLock. There may be several, because a log observer may take a
// trace when it receives a record of another. The symbol library stays initialised until the last one ends.
int g_liveTraces = 0;

STACKFRAME64 flatFrame(const CONTEXT& context) {
    STACKFRAME64 frame{};
    frame.AddrPC.Offset = context.Eip;
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrFrame.Offset = context.Ebp;
    frame.AddrFrame.Mode = AddrModeFlat;
    frame.AddrStack.Offset = context.Esp;
    frame.AddrStack.Mode = AddrModeFlat;
    return frame;
}

} // namespace

StackTrace::ProcessHandle stacktrace_platform::processHandle() {
    return ::GetCurrentProcess();
}

StackTrace::StackTrace(ProcessHandle process) {
    const std::string path = symbolSearchPath(currentDirectory(), executableDirectory(), systemRoot());
    // The library accepts any handle and fails later.
    const bool isThisProcess = ::GetProcessId(process) == ::GetCurrentProcessId();
    const SymbolLibrary* const library =
        isThisProcess && m_lock.acquire(SymbolLock::kTraceTimeoutMs) ? SymbolLibrary::get() : nullptr;
    const bool isInitialised =
        library != nullptr &&
        (g_liveTraces > 0 || library->initialize(process, path.c_str(), /*fInvadeProcess=*/FALSE) != FALSE);
    if (!isInitialised) {
        m_lock.release();
        MLOG(Norm, "NS_CORE::StackTrace::StackTrace", "failed to initialise symbols from %s", path);
        return;
    }
    ++g_liveTraces;
    m_process = process;
    library->setOptions(library->getOptions() | SYMOPT_LOAD_LINES | SYMOPT_FAIL_CRITICAL_ERRORS);
    // Asking for the path makes the library settle it.
    char effectivePath[kBufferSize] = {};
    library->getSearchPath(process, effectivePath, kBufferSize);
}

StackTrace::~StackTrace() {
    if (m_process != nullptr && --g_liveTraces == 0) SymbolLibrary::get()->cleanup(m_process);
}

void StackTrace::loadModules() {
    if (m_modulesLoaded) return;
    const ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, /*th32ProcessID=*/0));
    if (!snapshot) return;
    MODULEENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Module32First(snapshot.get(), &entry); more != FALSE;
         more = ::Module32Next(snapshot.get(), &entry)) {
        loadModule(m_process, entry.szExePath, entry.szModule, symbolAddress(entry.modBaseAddr), entry.modBaseSize);
    }
    m_modulesLoaded = true;
}

bool StackTrace::loadModule(ProcessHandle process, const std::string& image, const std::string& module, uint64_t base,
                            uint32_t size) {
    const SymbolLibrary* const library = SymbolLibrary::get();
    if (library == nullptr) return false;
    // The library sets the error when it fails, and leaves it alone if it knows the module already.
    ::SetLastError(ERROR_SUCCESS);
    if (library->loadModule(process, /*hFile=*/nullptr, image.c_str(), module.c_str(), base, size) != 0) return true;
    if (::GetLastError() == ERROR_SUCCESS) return true;
    MLOG(Norm, "NS_CORE::StackTrace::loadModule", "failed to load image=%s module=%d base_addr=%d, size=%d", image,
         module, base, size);
    return false;
}

[[gnu::noinline]] bool StackTrace::getStack(std::vector<Frame>& frames, size_t maxFrames) {
    if (m_process == nullptr) {
        MasterLogger::logAt(LogLevel::Warn, "core_stacktrace_win32", 186, "NS_CORE::StackTrace::getStack");
        return false;
    }
    loadModules();
    // By hand, because RtlCaptureContext skips its caller's own frame on some systems.
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    asm volatile("call 1f\n1: popl %0" : "=r"(context.Eip));
    asm volatile("movl %%ebp, %0" : "=r"(context.Ebp));
    asm volatile("movl %%esp, %0" : "=r"(context.Esp));
    STACKFRAME64 frame = flatFrame(context);
    const HANDLE thread = ::GetCurrentThread();
    const SymbolLibrary& library = *SymbolLibrary::get();
    while (library.walk(IMAGE_FILE_MACHINE_I386, m_process, thread, &frame, &context, /*ReadMemoryRoutine=*/nullptr,
                        library.functionTable, library.moduleBase, /*TranslateAddress=*/nullptr) != FALSE &&
           frames.size() < maxFrames) {
        const WalkStep step = walkStep(frame.AddrPC.Offset, frame.AddrReturn.Offset);
        if (step == WalkStep::Stop) break;
        frames.push_back(describe(library, m_process, frame.AddrPC.Offset));
        if (step == WalkStep::TakeAndStop) break;
    }
    return true;
}

} // namespace NS_CORE
