#include "health/installation.h"

#include <algorithm>

#include "core/files/core_dir.h"
#include "service/names.h"

namespace health {
namespace {

char lower(char c) {
    return machine::kIsWindows && c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool isSamePath(const std::string& left, const std::string& right) {
    return std::ranges::equal(left, right, {}, lower, lower);
}

std::optional<Installation> Installation::of(const std::string& image) {
    const size_t file = image.rfind(machine::kSeparator);
    if (file == std::string::npos || file == 0) return std::nullopt;
    Installation out;
    out.health = image;
    out.bin = image.substr(0, file);
    const size_t directory = out.bin.rfind(machine::kSeparator);
    if (directory == std::string::npos || !isSamePath(out.bin.substr(directory + 1), "bin")) return std::nullopt;
    out.root = out.bin.substr(0, directory);
    out.service = in(out.bin, machine::kServiceFile);
    out.companion = in(out.bin, service::kCompanionName);
    const std::string work = in(out.root, "work");
    out.logs = in(work, "logs");
    out.dumps = in(work, "dumps");
    out.temp = in(work, "tmp");
    return out;
}

std::optional<Installation> Installation::own() {
    // In the same form as the images of other processes, so that they can be compared.
    std::string image = machine::imageOf(machine::ownId());
    if (image.empty() && !NS_CORE::Dir::getModuleFilename(image)) return std::nullopt;
    return of(image);
}

} // namespace health
