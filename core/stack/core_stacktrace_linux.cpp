#include "core/stack/core_stacktrace_linux.h"

#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/files/core_scopedfd.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/stack/core_stacktrace_platform.h"

namespace NS_CORE {

namespace {

using stacktrace_platform::walkStep;

// Records of NORM that wait for the release of the session's lock. To log them under it could deadlock, because a log
// observer may take a trace. Declare the object before the lock: its destructor logs.
class LaterRecords {
public:
    LaterRecords() = default;
    ~LaterRecords() {
        for (const std::function<void()>& log : m_records) log();
    }
    LaterRecords(const LaterRecords&) = delete;
    LaterRecords& operator=(const LaterRecords&) = delete;

    void add(std::function<void()> log) {
        if (MasterLogger::isOn(LogLevel::Norm)) m_records.push_back(std::move(log));
    }

private:
    std::vector<std::function<void()>> m_records;
};

struct DwflCloser {
    void operator()(Dwfl* session) const { dwfl_end(session); }
};

struct ElfCloser {
    void operator()(Elf* file) const { elf_end(file); }
};
using ScopedElf = std::unique_ptr<Elf, ElfCloser>;

// How often the dynamic linker has loaded and unloaded modules so far.
struct ModuleGeneration {
    unsigned long long loads = 0;
    unsigned long long unloads = 0;

    bool operator==(const ModuleGeneration&) const = default;
};

// The symbol library's view of this process, shared by all traces: opening and indexing debug information is what makes
// a trace slow. It has a mutex of its own because the crash guard uses it without the SymbolLock.
struct Session {
    absl::Mutex mutex{absl::kConstInit};
    // Directories separated by ':'. The library keeps the address of searchPathText.
    std::string searchPath ABSL_GUARDED_BY(mutex);
    char* searchPathText ABSL_GUARDED_BY(mutex) = nullptr;
    Dwfl_Callbacks callbacks ABSL_GUARDED_BY(mutex){};
    std::unique_ptr<Dwfl, DwflCloser> library ABSL_GUARDED_BY(mutex);
    ModuleGeneration generation ABSL_GUARDED_BY(mutex);
    std::unordered_map<uintptr_t, StackTrace::Frame> known ABSL_GUARDED_BY(mutex);
};

Session& theSession() {
    static NeverDestroyed<Session> session;
    return *session;
}

std::string executablePath() {
    std::array<char, 4096> buffer;
    const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    return length > 0 ? std::string(buffer.data(), static_cast<size_t>(length)) : std::string();
}

// Separate files with debug information are searched for beside the executable, in "symbols" below it, and where the
// system's packages install them.
std::string debugSearchPath() {
    const std::string directory = moduleDirectory(executablePath());
    return formatString("%s:%s/symbols:/usr/lib/debug", directory, directory);
}

// Programs that are started meanwhile do not inherit it.
ScopedFd openForReading(const char* path) {
    return ScopedFd(::open(path, O_RDONLY | O_CLOEXEC));
}

// Null if it is not of this format. Opening the library has set libelf's version.
ScopedElf openElf(int fd) {
    return ScopedElf(elf_begin(fd, ELF_C_READ_MMAP, /*ref=*/nullptr));
}

// Whether the file carries the module's own build id.
bool belongsToModule(int fd, Dwfl_Module* module) {
    const unsigned char* wanted = nullptr;
    GElf_Addr address = 0;
    const int wantedSize = dwfl_module_build_id(module, &wanted, &address);
    const ScopedElf elf = openElf(fd);
    const void* found = nullptr;
    const ssize_t foundSize = elf ? dwelf_elf_gnu_build_id(elf.get(), &found) : -1;
    return wanted != nullptr && foundSize == wantedSize &&
           std::memcmp(found, wanted, static_cast<size_t>(wantedSize)) == 0;
}

// Looks by build id in the system's store, then by the name in the image, beside the executable and in "symbols" below
// it. The library's standard function is not used: it would ask servers on the network, too.
int findDebugInformation(Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr base, const char* image,
                         const char* debugName, GElf_Word checksum, char** found) {
    const int stored = dwfl_build_id_find_debuginfo(module, userData, name, base, image, debugName, checksum, found);
    // The library opens it, if there is one, in a way that programs started later would inherit.
    ::fcntl(stored, F_SETFD, FD_CLOEXEC);
    if (stored >= 0 || debugName == nullptr) return stored;
    const std::string directory = moduleDirectory(executablePath());
    for (const std::string& place : {directory, directory + "/symbols"}) {
        const std::string path = formatString("%s/%s", place, debugName);
        ScopedFd file = openForReading(path.c_str());
        if (!file || !belongsToModule(file.get(), module)) continue;
        *found = ::strdup(path.c_str());
        return file.release();
    }
    return -1;
}

// Opens a new session, which knows no module.
void openLibrary(Session& session) ABSL_EXCLUSIVE_LOCKS_REQUIRED(session.mutex) {
    session.searchPath = debugSearchPath();
    session.searchPathText = session.searchPath.data();
    session.callbacks.find_elf = dwfl_linux_proc_find_elf;
    session.callbacks.find_debuginfo = &findDebugInformation;
    session.callbacks.section_address = dwfl_offline_section_address;
    session.callbacks.debuginfo_path = &session.searchPathText;
    session.library.reset(dwfl_begin(&session.callbacks));
    if (!session.library) throw std::bad_alloc();
}

struct LoadedModule {
    std::string image;
    std::string name;
    uint64_t base;
    uint32_t size;
    bool isExecutable = false;
};

struct ModuleList {
    std::vector<LoadedModule> modules;
    ModuleGeneration generation;
};

// Called by the dynamic linker for each module. The executable has no name here. The kernel's vDSO has a name without a
// directory, and no file to read.
int addModule(dl_phdr_info* info, size_t /*size*/, void* data) {
    auto& list = *static_cast<ModuleList*>(data);
    list.generation = {info->dlpi_adds, info->dlpi_subs};
    const bool isExecutable = *info->dlpi_name == '\0';
    const std::string image = isExecutable ? executablePath() : info->dlpi_name;
    if (image.find('/') == std::string::npos) return 0;
    uint64_t end = 0;
    for (const auto& header : std::span(info->dlpi_phdr, info->dlpi_phnum)) {
        if (header.p_type == PT_LOAD) end = std::max<uint64_t>(end, header.p_vaddr + header.p_memsz);
    }
    list.modules.push_back({image, image, info->dlpi_addr, static_cast<uint32_t>(end), isExecutable});
    return 0;
}

int readGeneration(dl_phdr_info* info, size_t /*size*/, void* data) {
    *static_cast<ModuleGeneration*>(data) = {info->dlpi_adds, info->dlpi_subs};
    return 1; // it is the same for every module
}

ModuleGeneration currentGeneration() {
    ModuleGeneration generation;
    dl_iterate_phdr(&readGeneration, &generation);
    return generation;
}

// Adds one module to those that are known. The executable's file may have been replaced since, so it is opened by the
// kernel's own name for it.
bool addToLibrary(Dwfl* library, const LoadedModule& module, LaterRecords& later) {
    ScopedFd file = openForReading(module.isExecutable ? "/proc/self/exe" : module.image.c_str());
    dwfl_report_begin_add(library);
    const bool isAdded = file && dwfl_report_elf(library, module.name.c_str(), module.image.c_str(), file.get(),
                                                 module.base, /*add_p_vaddr=*/true) != nullptr;
    dwfl_report_end(library, /*removed=*/nullptr, /*arg=*/nullptr);
    if (isAdded) {
        static_cast<void>(file.release()); // the library closes it
        return true;
    }
    later.add([module] {
        MLOG(Norm, "NS_CORE::StackTrace::loadModule", "failed to load image=%s module=%d base_addr=%d, size=%d",
             module.image, module.name, module.base, module.size);
    });
    return false;
}

// Updates the library's list of modules after a change. A new session is needed: the library refuses modules that it
// knows already.
void updateModules(Session& session, LaterRecords& later) ABSL_EXCLUSIVE_LOCKS_REQUIRED(session.mutex) {
    if (session.generation == currentGeneration()) return;
    openLibrary(session);
    ModuleList list;
    dl_iterate_phdr(&addModule, &list);
    for (const LoadedModule& module : list.modules) addToLibrary(session.library.get(), module, later);
    session.known.clear();
    session.generation = list.generation;
}

std::string symbolAt(Dwfl_Module* module, uintptr_t address, LaterRecords& later) {
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* const name = module == nullptr
                                 ? nullptr
                                 : dwfl_module_addrinfo(module, address, &offset, &symbol, /*shndxp=*/nullptr,
                                                        /*elfp=*/nullptr, /*biasp=*/nullptr);
    if (name == nullptr || *name == '\0') {
        later.add([address = uint64_t{address}, error = dwfl_errno()] {
            MLOG(Norm, "NS_CORE::StackTrace::getStack", "failed to get symbol from addr %d : %d", address, error);
        });
        return {};
    }
    return readableName(name) + "()";
}

struct ModuleFiles {
    const char* image = nullptr;
    const char* debug = nullptr; // separate debug information, once the library has searched for it
};

ModuleFiles filesOf(Dwfl_Module* module) {
    ModuleFiles files;
    dwfl_module_info(module, /*userdata=*/nullptr, /*start=*/nullptr, /*end=*/nullptr, /*dwbias=*/nullptr,
                     /*symbias=*/nullptr, &files.image, &files.debug);
    return files;
}

bool isDebugInformationCompressed(Dwfl_Module* module) {
    const ModuleFiles files = filesOf(module);
    const char* const path = files.debug != nullptr ? files.debug : files.image;
    const ScopedFd file = path != nullptr ? openForReading(path) : ScopedFd();
    const ScopedElf elf = openElf(file.get());
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf.get(), section)) != nullptr;) {
        GElf_Shdr header{};
        if (gelf_getshdr(section, &header) != nullptr && (header.sh_flags & SHF_COMPRESSED) != 0) return true;
    }
    return false;
}

StackTrace::Frame lookUp(Dwfl* library, uintptr_t address, LineLookup lines, LaterRecords& later) {
    StackTrace::Frame frame;
    Dwfl_Module* const module = dwfl_addrmodule(library, address);
    frame.symbol = symbolAt(module, address, later);
    if (module == nullptr) {
        later.add([] { MLOG(Norm, "NS_CORE::StackTrace::getStack", "failed to get module info"); });
        return frame;
    }
    const bool isLeftOut = lines == LineLookup::Quick && isDebugInformationCompressed(module);
    if (Dwfl_Line* const source = isLeftOut ? nullptr : dwfl_module_getsrc(module, address); source != nullptr) {
        int line = 0;
        const char* const file = dwfl_lineinfo(source, /*addr=*/nullptr, &line, /*col=*/nullptr, /*mtime=*/nullptr,
                                               /*length=*/nullptr);
        if (file != nullptr) frame.file = file;
        frame.line = static_cast<uint32_t>(line);
    }
    const ModuleFiles files = filesOf(module);
    if (files.image != nullptr) frame.image = files.image;
    if (files.debug != nullptr) frame.pdb = files.debug;
    return frame;
}

// An address inside the frame's instruction. A return address lies behind the call, so its predecessor is the call's
// last byte.
uintptr_t lookUpAddress(const RawFrame& frame) {
    return frame.isReturnAddress ? frame.programCounter - 1 : frame.programCounter;
}

struct RawWalk {
    RawFrame* frames;
    size_t count;
    size_t limit;
    size_t ownFrames; // still to be left out
};

_Unwind_Reason_Code takeFrame(_Unwind_Context* context, void* data) {
    auto& walk = *static_cast<RawWalk*>(data);
    if (walk.ownFrames > 0) {
        --walk.ownFrames;
        return _URC_NO_REASON;
    }
    if (walk.count == walk.limit) return _URC_END_OF_STACK;
    int isBeforeInstruction = 0;
    const uintptr_t programCounter = _Unwind_GetIPInfo(context, &isBeforeInstruction);
    walk.frames[walk.count++] = {programCounter, isBeforeInstruction == 0};
    return _URC_NO_REASON;
}

} // namespace

[[gnu::noinline]] size_t walkRaw(RawFrame* frames, size_t maxFrames) {
    RawWalk walk{frames, 0, maxFrames, /*ownFrames=*/1};
    _Unwind_Backtrace(&takeFrame, &walk);
    // Some unwinders report the missing caller of the process's first function as a frame at address 0.
    if (walk.count > 0 && frames[walk.count - 1].programCounter == 0) --walk.count;
    return walk.count;
}

void describeFrames(const RawFrame* frames, size_t count, std::vector<StackFrame>& described, LineLookup lines) {
    LaterRecords later;
    Session& session = theSession();
    const absl::MutexLock lock(&session.mutex);
    updateModules(session, later);
    for (size_t index = 0; index < count; ++index) {
        const uintptr_t address = lookUpAddress(frames[index]);
        const auto [entry, isNew] = session.known.try_emplace(address);
        if (isNew) entry->second = lookUp(session.library.get(), address, lines, later);
        described.push_back(entry->second);
    }
}

StackTrace::ProcessHandle stacktrace_platform::processHandle() {
    return reinterpret_cast<StackTrace::ProcessHandle>(static_cast<intptr_t>(::getpid()));
}

StackTrace::StackTrace(ProcessHandle process) {
    const bool isThisProcess = process == stacktrace_platform::processHandle();
    if (!isThisProcess || !m_lock.acquire(SymbolLock::kTraceTimeoutMs)) {
        MLOG(Norm, "NS_CORE::StackTrace::StackTrace", "failed to initialise symbols from %s", debugSearchPath());
        return;
    }
    m_process = process;
}

// The session stays open for the next trace.
StackTrace::~StackTrace() = default;

// Naming no frame registers them as well.
void StackTrace::loadModules() {
    std::vector<Frame> none;
    describeFrames(nullptr, 0, none);
}

bool StackTrace::loadModule(ProcessHandle /*process*/, const std::string& image, const std::string& module,
                            uint64_t base, uint32_t size) {
    LaterRecords later;
    Session& session = theSession();
    const absl::MutexLock lock(&session.mutex);
    if (!session.library) openLibrary(session);
    return addToLibrary(session.library.get(), {image, module, base, size}, later);
}

[[gnu::noinline]] bool StackTrace::getStack(std::vector<Frame>& frames, size_t maxFrames) {
    if (m_process == nullptr) {
        MasterLogger::logAt(LogLevel::Warn, "core_stacktrace_win32", 186, "NS_CORE::StackTrace::getStack");
        return false;
    }
    std::vector<RawFrame> walked(maxFrames > frames.size() ? maxFrames - frames.size() : 0);
    walked.resize(walkRaw(walked.data(), walked.size()));
    // A frame that returns to itself leads nowhere.
    const auto endless = std::ranges::adjacent_find(walked, {}, &RawFrame::programCounter);
    describeFrames(walked.data(), static_cast<size_t>(endless - walked.begin()), frames);
    // Logs why the walk ends here. Not under the session's lock, because an observer of the log may take a trace.
    if (endless != walked.end()) walkStep(endless->programCounter, endless->programCounter);
    return true;
}

} // namespace NS_CORE
