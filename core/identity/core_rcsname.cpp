#include "core/identity/core_rcsname.h"

#include <array>

#include "core/identity/core_buildstamp.h"
#include "core/identity/core_rcsname_platform.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/text/core_checkf.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kReleasePrefix = "$Name: release_";
constexpr std::string_view kPrefix = "$Name: ";
constexpr std::string_view kSuffix = " $";

// Prefix and suffix must not overlap: "$Name: $" has one blank, and each of them needs one.
bool isFramed(std::string_view keyword, std::string_view prefix) {
    return keyword.size() >= prefix.size() + kSuffix.size() && keyword.starts_with(prefix) &&
           keyword.ends_with(kSuffix);
}

std::string_view inFrame(std::string_view keyword, std::string_view prefix) {
    return keyword.substr(prefix.size(), keyword.size() - prefix.size() - kSuffix.size());
}

} // namespace

std::string_view rcsTag() {
    static constexpr std::string_view kKeyword = stamp::kKeyword;
    return kKeyword;
}

std::string rcsname(std::string_view keyword) {
    if (isFramed(keyword, kReleasePrefix)) return std::string(inFrame(keyword, kReleasePrefix));
    if (isFramed(keyword, kPrefix)) return std::string(inFrame(keyword, kPrefix));
    static_cast<void>(CHECKF_AT("core_rcsname", 28, false, "%s", keyword));
    return std::string(keyword);
}

std::string version() {
    return rcsname(rcsTag());
}

const std::string& buildId() {
    // Never destroyed: reports are made until the very end.
    static const NeverDestroyed<std::string> id(stamp::kBuildId);
    return *id;
}

const char* versionWithBuildId() {
    return stamp::kVersionWithBuildId;
}

const char* buildDate() {
    return stamp::kBuildDate;
}

const char* buildTime() {
    return stamp::kBuildTime;
}

std::string platform() {
    return stamp::kPlatform;
}

std::string hostName() {
    return hostNameBy(&systemHostName);
}

std::string hostNameBy(HostNameCall call) {
    std::array<char, 256> name{};
    if (!call(name.data(), static_cast<uint32_t>(name.size()))) return "?";
    // A name that was cut may have lost its terminator.
    name.back() = '\0';
    return name.data();
}

} // namespace NS_CORE
