// Any bytes are settings: what comes of them is within its ranges, and no abort bit is ever set.

#include <cstdint>
#include <string_view>

#include "core/files/core_settingsfile.h"
#include "core/report/internal/core_testsettings.h"
#include "fuzz/require.h"

namespace {

NS_CORE::TestSettings parsed(std::string_view bytes, uint32_t flags) {
    NS_CORE::TestSettings settings;
    settings.actionFlags = flags;
    NS_CORE::TestSettingsParser parser(&settings);
    while (!bytes.empty()) {
        const std::string_view line = bytes.substr(0, bytes.find('\n'));
        parser.addLine(line);
        for (const std::string_view token : NS_CORE::settingsTokens(line)) require(!token.empty());
        bytes.remove_prefix(line.size() == bytes.size() ? line.size() : line.size() + 1);
    }
    return settings;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const NS_CORE::TestSettings settings = parsed(bytes, 0);
    require(settings.sendPort >= 1 && settings.sendPort <= 65534);
    require(settings.assertLevel == 1);
    require(!settings.sendAddress.empty());
    constexpr uint32_t kAborts = NS_CORE::TestAction::AssertAbort | NS_CORE::TestAction::AlertAbort;
    require((settings.actionFlags & ~0x36U) == 0);
    // What was set without the abort bits is set with them, and then they are gone.
    const uint32_t flags = parsed(bytes, kAborts).actionFlags;
    require((flags & ~kAborts) == settings.actionFlags);
    require(settings.actionFlags == 0 || (flags & kAborts) == 0);
    return 0;
}
