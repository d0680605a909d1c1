#include "core/stack/core_stacktrace.h"

#include <windows.h>
// dbghelp.h and tlhelp32.h need windows.h before them.
#include <dbghelp.h>
#include <tlhelp32.h>

#include <cstddef>

#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "core/stack/core_stacktrace_platform.h"
#include "core/stack/core_stacktracetext.h"
#include "core/stack/core_symbollock.h"

namespace NS_CORE {

namespace {

constexpr DWORD kBufferSize = 1024; // of paths, and of names

static_assert(sizeof(IMAGEHLP_MODULE64) == 0x690, "with the fields on the PDB and the machine type");
static_assert(sizeof(MODULEENTRY32) == 0x224, "the narrow form");

// What a call that fills a path buffer has filled in; empty when it failed, or the buffer was too small.
std::string pathIn(const char* buffer, DWORD length) {
    return length != 0 && length <= kBufferSize ? std::string(buffer, length) : std::string();
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

// Names in Microsoft's mangling are undecorated by the symbol library, which hands on the compiler's own as they are.
std::string undecorated(const char* name) {
    char buffer[kBufferSize] = {};
    if (::UnDecorateSymbolName(name, buffer, kBufferSize, UNDNAME_NAME_ONLY) != 0) return readableName(buffer);
    if (::UnDecorateSymbolName(name, buffer, kBufferSize, UNDNAME_COMPLETE) != 0) return readableName(buffer);
    return readableName(name);
}

std::string symbolAt(HANDLE process, DWORD64 address) {
    SymbolBuffer buffer;
    if (::SymGetSymFromAddr64(process, address, /*Displacement=*/nullptr, buffer.symbol()) == FALSE) {
        const DWORD error = ::GetLastError();
        MLOG(Norm, "NS_CORE::StackTrace::getStack", "failed to get symbol from addr %d : %d", address, error);
        return {};
    }
    return undecorated(buffer.symbol()->Name) + "()";
}

void findLine(HANDLE process, DWORD64 address, StackTrace::Frame& frame) {
    // Asked without the record's size at first. Versions of the library that insist on it are asked once more.
    IMAGEHLP_LINE64 line{};
    DWORD displacement = 0;
    if (::SymGetLineFromAddr64(process, address, &displacement, &line) == FALSE) {
        line.SizeOfStruct = sizeof(line);
        if (::SymGetLineFromAddr64(process, address, &displacement, &line) == FALSE) return;
    }
    frame.line = line.LineNumber;
    if (line.FileName != nullptr) frame.file = line.FileName;
}

void findModule(HANDLE process, DWORD64 address, StackTrace::Frame& frame) {
    IMAGEHLP_MODULE64 module{};
    module.SizeOfStruct = sizeof(module);
    if (::SymGetModuleInfo64(process, address, &module) == FALSE) {
        MLOG(Norm, "NS_CORE::StackTrace::getStack", "failed to get module info");
        return;
    }
    frame.image = module.ImageName;
    frame.pdb = module.LoadedPdbName;
}

StackTrace::Frame describe(HANDLE process, DWORD64 address) {
    StackTrace::Frame frame;
    frame.symbol = symbolAt(process, address);
    findLine(process, address, frame);
    findModule(process, address, frame);
    return frame;
}

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

StackTrace::StackTrace() : StackTrace(stacktrace_platform::processHandle()) {}

StackTrace::StackTrace(ProcessHandle process) {
    const std::string path = symbolSearchPath(currentDirectory(), executableDirectory(), systemRoot());
    // The library takes any handle and fails later.
    const bool isThisProcess = ::GetProcessId(process) == ::GetCurrentProcessId();
    const bool hasTurn = isThisProcess && SymbolTurn::take(SymbolTurn::kTracePatienceMs);
    if (!hasTurn || ::SymInitialize(process, path.c_str(), /*fInvadeProcess=*/FALSE) == FALSE) {
        if (hasTurn) SymbolTurn::giveBack();
        MLOG(Norm, "NS_CORE::StackTrace::StackTrace", "failed to initialise symbols from %s", path);
        return;
    }
    m_processId = ::GetCurrentProcessId();
    m_process = process;
    ::SymSetOptions(::SymGetOptions() | SYMOPT_LOAD_LINES | SYMOPT_FAIL_CRITICAL_ERRORS);
    // The library settles the effective path when it is asked for it.
    char effectivePath[kBufferSize] = {};
    ::SymGetSearchPath(process, effectivePath, kBufferSize);
}

StackTrace::~StackTrace() {
    if (m_process == nullptr) return;
    ::SymCleanup(m_process);
    SymbolTurn::giveBack();
}

void StackTrace::loadModules() {
    if (m_modulesLoaded) return;
    const ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, /*th32ProcessID=*/0));
    if (!snapshot) return;
    MODULEENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Module32First(snapshot.get(), &entry); more != FALSE;
         more = ::Module32Next(snapshot.get(), &entry)) {
        // Extended with its sign, as the symbol library does with addresses of 32 bits.
        const auto base = static_cast<int64_t>(reinterpret_cast<intptr_t>(entry.modBaseAddr));
        loadModule(m_process, entry.szExePath, entry.szModule, static_cast<uint64_t>(base), entry.modBaseSize);
    }
    m_modulesLoaded = true;
}

bool StackTrace::loadModule(ProcessHandle process, const std::string& image, const std::string& module, uint64_t base,
                            uint32_t size) {
    // Set by the library when it fails, and left alone when the module is there already.
    ::SetLastError(ERROR_SUCCESS);
    if (::SymLoadModule64(process, /*hFile=*/nullptr, image.c_str(), module.c_str(), base, size) != 0) return true;
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
    // Taken by hand: RtlCaptureContext does not answer for its caller's own frame everywhere.
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    asm volatile("call 1f\n1: popl %0" : "=r"(context.Eip));
    asm volatile("movl %%ebp, %0" : "=r"(context.Ebp));
    asm volatile("movl %%esp, %0" : "=r"(context.Esp));
    STACKFRAME64 frame = flatFrame(context);
    const HANDLE thread = ::GetCurrentThread();
    while (::StackWalk64(IMAGE_FILE_MACHINE_I386, m_process, thread, &frame, &context, /*ReadMemoryRoutine=*/nullptr,
                         ::SymFunctionTableAccess64, ::SymGetModuleBase64,
                         /*TranslateAddress=*/nullptr) != FALSE &&
           frames.size() < maxFrames) {
        const WalkStep step = walkStep(frame.AddrPC.Offset, frame.AddrReturn.Offset);
        if (step == WalkStep::Stop) break;
        frames.push_back(describe(m_process, frame.AddrPC.Offset));
        if (step == WalkStep::TakeAndStop) break;
    }
    return true;
}

} // namespace NS_CORE
