// Any bytes are either a registry export or refused with a line that they have. What an accepted one
// holds can be asked for, and parsing it again gives the same.

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "utl/utl_regfile_linux.h"

using NS_UTL::RegFile;

namespace {

const std::string kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Test";

void checkError(std::string_view file, const RegFile& registry, int32_t line) {
    require(line >= 1 && static_cast<size_t>(line) <= file.size() + 1);
    require(!registry.hasKey(kKey));
}

void checkRegistry(std::string_view file, const RegFile& registry) {
    const RegFile::Value* value = registry.findValue(kKey, "v");
    if (value != nullptr) require(registry.hasKey(kKey));
    RegFile again;
    require(again.parse(file) == 0);
    const RegFile::Value* same = again.findValue(kKey, "V");
    require((value == nullptr) == (same == nullptr));
    if (value != nullptr) require(*value == *same);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file(data, data + size);
    RegFile registry;
    const int32_t line = registry.parse(file);
    if (line == 0) {
        checkRegistry(file, registry);
    } else {
        checkError(file, registry, line);
    }
    return 0;
}
