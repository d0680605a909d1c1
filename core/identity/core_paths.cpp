#include "core/identity/core_paths.h"

#include <array>
#include <stdexcept>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/text/core_checkf.h"

namespace NS_CORE {
namespace {

struct Entry {
    std::string path;
    bool is_set = false;
};

struct Kind {
    const char* name;
    const char* defaultPath;
};

constexpr std::array<Kind, 6> kKinds{{
    {"Assets", "assets"},
    {"Settings", "settings"},
    {"Work", "work"},
    {"Temp", "work/tmp"},
    {"Logs", "work/logs"},
    {"Dumps", "work/dumps"},
}};

size_t indexOf(PathKind kind) {
    return static_cast<size_t>(kind);
}

Entry& entryOf(PathKind kind) {
    // Never destroyed: what runs at process end, a crash dump included, may still ask for a path.
    static NeverDestroyed<std::array<Entry, kKinds.size()>> table;
    // Not at(): its exception's text differs from one standard library to the next, and ends up in reports.
    if (indexOf(kind) >= table->size()) throw std::out_of_range("invalid vector<T> subscript");
    return (*table)[indexOf(kind)];
}

} // namespace

void setPath(PathKind kind, std::string path) {
    Entry& entry = entryOf(kind);
    entry.path = std::move(path);
    entry.is_set = true;
}

const std::string& getPath(PathKind kind) {
    // The name is part of the assertion's published text.
    const Entry& pi = entryOf(kind);
    GASSERT_AT("core_paths", 108, 1, pi.is_set, pathName(kind));
    return pi.path;
}

bool isPathSet(PathKind kind) {
    return entryOf(kind).is_set;
}

std::string dotPath(PathKind kind) {
    return absl::StrCat("./", getPath(kind));
}

const char* pathName(PathKind kind) {
    if (!CHECKF_AT("core_paths", 125, indexOf(kind) < kKinds.size(), "")) return "?";
    return kKinds[indexOf(kind)].name;
}

void setDefaultPaths() {
    for (size_t i = 0; i < kKinds.size(); ++i) setPath(static_cast<PathKind>(i), kKinds[i].defaultPath);
}

} // namespace NS_CORE
