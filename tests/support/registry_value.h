#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace test {

// Sets one value of a real registry key below HKEY_LOCAL_MACHINE, and puts back at its end what was there before. On
// Windows the process's own view of the system's registry is changed, for one test process at a time (the others
// wait in the constructor); on Linux the file settings/registry.reg below `root` is written.
class RegistryValue {
public:
    RegistryValue(const std::string& subKey, const std::string& name, const std::filesystem::path& root);
    ~RegistryValue();

    // Makes the key, with the value. `bytes` are stored as they are, but for those of the text types 1, 2 and 7, which
    // are UTF-8 here and stored as UTF-16. Terminators have to be in them.
    void set(uint32_t type, const std::string& bytes);

    // Makes the key, and removes the value.
    void removeValue();

    // Removes the key. (What was below it is lost.)
    void removeKey();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// A file of tests/data, as the platform's calls take paths.
std::string dataFile(const std::string& name);

} // namespace test
