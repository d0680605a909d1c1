#pragma once

#include <windows.h>
// dbghelp.h needs windows.h before it.
#include <dbghelp.h>

#include <cstdint>

namespace NS_CORE {

// The functions of Windows' symbol library, dbghelp.dll. It is not one of Windows' known DLLs, so an import would make
// the loader take a file of that name from the program's own directory. It is loaded from the system directory instead,
// when it is first needed. Callers of its functions hold the SymbolLock.
struct SymbolLibrary {
    decltype(&::SymInitialize) initialize;
    decltype(&::SymCleanup) cleanup;
    decltype(&::SymGetOptions) getOptions;
    decltype(&::SymSetOptions) setOptions;
    decltype(&::SymGetSearchPath) getSearchPath;
    decltype(&::SymLoadModule64) loadModule;
    decltype(&::SymGetSymFromAddr64) getSymbol;
    decltype(&::UnDecorateSymbolName) undecorate;
    decltype(&::SymGetLineFromAddr64) getLine;
    decltype(&::SymGetModuleInfo64) getModule;
    decltype(&::SymFunctionTableAccess64) functionTable;
    decltype(&::SymGetModuleBase64) moduleBase;
    decltype(&::StackWalk64) walk;
    decltype(&::MiniDumpWriteDump) writeDump;

    // Loads the library at the first call; thread-safe. Null, with the system's last error set, if it cannot be loaded
    // or lacks a function. It stays loaded until the process ends. Tests replace functions in it.
    static SymbolLibrary* get();
};

// An address as the symbol library takes it: extended to 64 bits with its sign, so that one at or above 2 GiB becomes
// 0xFFFFFFFF8xxxxxxx.
uint64_t symbolAddress(const void* address);

} // namespace NS_CORE
