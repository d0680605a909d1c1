#include "utl/utl_registry.h"

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_guniquebuf.h"
#include "core/text/core_checkf.h"
#include "utl/utl_registry_platform.h"
#include "utl/utl_regtype.h"

namespace NS_UTL {
namespace {

// Enough for a short value; getValue reads a longer one again into a buffer of its size.
constexpr uint32_t kFirstGuess = 16;

} // namespace

bool RegistryKey::open(const std::string& subKey) {
    if (!CHECKF(!m_key, "")) return false;
    // Built before the call, so that nothing comes between it and the reading of its error.
    const std::string prefix = NS_CORE::formatString("RegistryKey: failed open '%s'", subKey);
    m_key = registry_platform::openKey(subKey);
    if (m_key) return true;
    NS_CORE::logLastError(prefix);
    return false;
}

bool RegistryKey::getValue(const std::string& name, const Consumer& consumer) const {
    if (!CHECKF(m_key, "")) return false;
    uint8_t firstGuess[kFirstGuess];
    NS_CORE::GUniqueBuf grown(/*size=*/0);
    uint8_t* buffer = firstGuess;
    uint32_t count = kFirstGuess;
    uint32_t type = RegType::None;
    uint32_t result = registry_platform::queryValue(m_key, name, type, buffer, count);
    // A loop, because the value may grow between two reads.
    while (result == registry_platform::kErrorMoreData) {
        grown.adjust(/*deltaFront=*/0, static_cast<int32_t>(count) - grown.size());
        buffer = grown.data();
        count = static_cast<uint32_t>(grown.size());
        result = registry_platform::queryValue(m_key, name, type, buffer, count);
    }
    if (result != 0) {
        MLOG(Warn, "NS_UTL::RegistryKey::getValue", "(%s) - error %d", name, static_cast<int32_t>(result));
        return false;
    }
    if (type != RegType::Sz) {
        MLOG(Warn, "NS_UTL::RegistryKey::getValue", "(%s) - type=%d expected %d", name, static_cast<int32_t>(type),
             static_cast<int32_t>(RegType::Sz));
        return false;
    }
    return consumer(buffer, count);
}

bool RegistryKey::getValue(const std::string& name, std::string& text) const {
    return getValue(name, [&text](const uint8_t* bytes, uint32_t count) {
        if (!CHECKF(count != 0, "")) return false;
        text.assign(reinterpret_cast<const char*>(bytes), count);
        // One only: a value stored with two terminators keeps the first.
        if (text.back() == '\0') text.pop_back();
        return true;
    });
}

} // namespace NS_UTL
