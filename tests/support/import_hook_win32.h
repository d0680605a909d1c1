#pragma once

#include <cstdint>

namespace test {

// Puts `replacement` in the place of a function that this program imports from a DLL, for every caller in the program,
// while it lives: for what the system neither shows nor can be made to do, such as the rights that a call asks for.
// `function` is the name without decoration; `replacement` has the function's own type and calling convention.
template <class Function>
class ImportHook {
public:
    ImportHook(const char* function, Function* replacement);
    ~ImportHook();
    ImportHook(const ImportHook&) = delete;
    ImportHook& operator=(const ImportHook&) = delete;

    Function* original() const { return reinterpret_cast<Function*>(m_original); }

private:
    void** m_slot;
    void* m_original;
};

// The place in the program's import table that holds the function's address; throws when the program does not import
// it.
void** findImport(const char* function);
void* replaceImport(void** slot, void* replacement);

template <class Function>
ImportHook<Function>::ImportHook(const char* function, Function* replacement)
    : m_slot(findImport(function)), m_original(replaceImport(m_slot, reinterpret_cast<void*>(replacement))) {}

template <class Function>
ImportHook<Function>::~ImportHook() {
    replaceImport(m_slot, m_original);
}

} // namespace test
