#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "core/memory/core_neverdestroyed.h"
#include "utl/utl_regfile_linux.h"
#include "utl/utl_registry_platform.h"

namespace NS_UTL {
namespace {

// What the handle of a key stands for.
struct OpenKey {
    RegFile registry;
    std::string path;
};

constexpr uint32_t kErrorFileNotFound = 2; // ERROR_FILE_NOT_FOUND

// Keys are never closed; kept here, they stay reachable until the process ends.
NS_CORE::NeverDestroyed<std::vector<std::unique_ptr<OpenKey>>> g_open;

} // namespace

void* registry_platform::openKey(const std::string& subKey) {
    auto opened = std::make_unique<OpenKey>();
    if (!opened->registry.load("settings/registry.reg")) return nullptr;
    opened->path = "HKEY_LOCAL_MACHINE\\" + subKey;
    if (!opened->registry.hasKey(opened->path)) {
        errno = ENOENT;
        return nullptr;
    }
    return g_open->emplace_back(std::move(opened)).get();
}

uint32_t registry_platform::queryValue(void* key, const std::string& name, uint32_t& type, uint8_t* buffer,
                                       uint32_t& count) {
    const auto& opened = *static_cast<const OpenKey*>(key);
    const RegFile::Value* value = opened.registry.findValue(opened.path, name);
    if (!value) return kErrorFileNotFound;
    const uint32_t room = count;
    type = value->type;
    count = static_cast<uint32_t>(value->bytes.size());
    if (count > room) return kErrorMoreData;
    if (count != 0) std::memcpy(buffer, value->bytes.data(), count);
    return 0;
}

} // namespace NS_UTL
