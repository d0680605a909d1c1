#include "tests/support/import_hook_win32.h"

#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace test {

void** findImport(const char* function) {
    auto* const base = reinterpret_cast<uint8_t*>(::GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& table = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + table.VirtualAddress);
    for (; library->Name != 0; ++library) {
        const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
        auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++slot) {
            if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) continue;
            const auto* entry = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(entry->Name), function) == 0)
                return reinterpret_cast<void**>(&slot->u1.Function);
        }
    }
    throw std::runtime_error("this program does not import " + std::string(function));
}

void* replaceImport(void** slot, void* replacement) {
    DWORD rights = 0;
    ::VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &rights);
    void* const before = *slot;
    *slot = replacement;
    ::VirtualProtect(slot, sizeof(*slot), rights, &rights);
    return before;
}

} // namespace test
