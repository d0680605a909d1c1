#include "core/stack/core_symbollibrary_win32.h"

#include <atomic>
#include <bit>
#include <memory>
#include <string>

namespace NS_CORE {
namespace {

// Loads by the full path. The flag makes the library look for its own libraries in its directory, not in the program's.
HMODULE loadFromSystemDirectory(const wchar_t* name) {
    wchar_t directory[MAX_PATH] = {};
    const UINT length = ::GetSystemDirectoryW(directory, MAX_PATH);
    if (length == 0 || length > MAX_PATH) return nullptr;
    const std::wstring path = std::wstring(directory, length) + L'\\' + name;
    return ::LoadLibraryExW(path.c_str(), /*hFile=*/nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

template <class Function>
bool find(HMODULE module, const char* name, Function& function) {
    // Not reinterpret_cast: the compiler warns of a cast between function types.
    function = std::bit_cast<Function>(::GetProcAddress(module, name));
    return function != nullptr;
}

bool load(SymbolLibrary& library) {
    const HMODULE module = loadFromSystemDirectory(L"dbghelp.dll");
    return module != nullptr && find(module, "SymInitialize", library.initialize) &&
           find(module, "SymCleanup", library.cleanup) && find(module, "SymGetOptions", library.getOptions) &&
           find(module, "SymSetOptions", library.setOptions) &&
           find(module, "SymGetSearchPath", library.getSearchPath) &&
           find(module, "SymLoadModule64", library.loadModule) &&
           find(module, "SymGetSymFromAddr64", library.getSymbol) &&
           find(module, "UnDecorateSymbolName", library.undecorate) &&
           find(module, "SymGetLineFromAddr64", library.getLine) &&
           find(module, "SymGetModuleInfo64", library.getModule) &&
           find(module, "SymFunctionTableAccess64", library.functionTable) &&
           find(module, "SymGetModuleBase64", library.moduleBase) && find(module, "StackWalk64", library.walk) &&
           find(module, "MiniDumpWriteDump", library.writeDump);
}

} // namespace

SymbolLibrary* SymbolLibrary::get() {
    // Without a lock, a static's own guard included: its holder could wait for the loader's lock while the caller holds
    // the loader's lock and waits for this one.
    static std::atomic<SymbolLibrary*> loaded{nullptr};
    if (SymbolLibrary* const library = loaded) return library;
    auto library = std::make_unique<SymbolLibrary>();
    if (!load(*library)) return nullptr;
    SymbolLibrary* other = nullptr;
    return loaded.compare_exchange_strong(other, library.get()) ? library.release() : other;
}

uint64_t symbolAddress(const void* address) {
    return static_cast<uint64_t>(static_cast<int64_t>(reinterpret_cast<intptr_t>(address)));
}

} // namespace NS_CORE
