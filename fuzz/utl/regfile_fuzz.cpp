// Any bytes are either a registry export or refused with a line that they have and a reason. What an accepted one
// holds can be asked for, and parsing it again gives the same.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "utl/utl_regfile.h"

using NS_UTL::RegFile;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void checkError(std::string_view file, const RegFile& registry, const RegFile::Error& error) {
    require(!error.reason.empty());
    require(error.line >= 1 && static_cast<size_t>(error.line) <= file.size() + 1);
    require(!registry.hasKey("HKLM") && !registry.hasKey("HKCU"));
}

void checkRegistry(std::string_view file, const RegFile& registry) {
    const std::string key = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Test";
    const RegFile::Value* value = registry.findValue(key, "v");
    if (value != nullptr) require(registry.hasKey(key) && registry.hasKey("HKLM\\software") && registry.hasKey("hklm"));
    RegFile again;
    RegFile::Error error;
    require(again.parse(file, &error));
    const RegFile::Value* same = again.findValue(key, "V");
    require((value == nullptr) == (same == nullptr));
    if (value != nullptr) require(*value == *same);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file(data, data + size);
    RegFile registry;
    RegFile::Error error;
    if (registry.parse(file, &error)) {
        checkRegistry(file, registry);
    } else {
        checkError(file, registry, error);
    }
    return 0;
}
