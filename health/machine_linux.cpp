#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string_view>

#include "health/machine.h"
#include "service/names.h"
#include "utl/utl_regfile_linux.h"
#include "utl/utl_regtype.h"

namespace health::machine {
namespace {

// A file of /proc, whose size is not known before it is read.
std::string readSystemFile(const std::string& path) {
    InputFile file(path);
    std::string bytes;
    char block[4096];
    for (size_t length = 1; file && length != 0; bytes.append(block, length)) length = file.read(block, sizeof block);
    return bytes;
}

std::vector<std::string_view> wordsOf(std::string_view text) {
    std::vector<std::string_view> words;
    for (size_t begin = 0; (begin = text.find_first_not_of(" \t\n", begin)) != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_of(" \t\n", begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

// 0 for a text that is no number.
uint64_t toNumber(std::string_view text, int base = 10) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

std::string linkOf(const std::string& path) {
    char buffer[4096];
    const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer);
    return length < 0 ? "" : std::string(buffer, static_cast<size_t>(length));
}

std::string ofProcess(uint32_t id, const char* file) {
    return "/proc/" + std::to_string(id) + '/' + file;
}

// For a process of another user, whose program the system does not give, but whose command line it does.
std::string firstWord(uint32_t id) {
    std::string words = readSystemFile(ofProcess(id, "cmdline"));
    words.resize(std::min(words.find('\0'), words.size()));
    return words;
}

int64_t millisecondsOf(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

// When the machine was started, in milliseconds since 1970: the system's own figure is a whole second and may be the
// next one.
int64_t bootTime() {
    return millisecondsOf(CLOCK_REALTIME) - millisecondsOf(CLOCK_BOOTTIME);
}

// True for a process in a container, which has ports of its own and belongs to an installation of its own.
bool isInOtherNetwork(uint32_t id) {
    const std::string network = linkOf(ofProcess(id, "ns/net"));
    return !network.empty() && network != linkOf("/proc/self/ns/net");
}

// Nothing for a process that has ended, even if its parent has not waited for it yet.
std::optional<Process> processOf(uint32_t id, int64_t boot) {
    if (isInOtherNetwork(id)) return std::nullopt;
    const std::string stat = readSystemFile(ofProcess(id, "stat"));
    // "ID (NAME) STATE PARENT ...": the name may hold anything.
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos) return std::nullopt;
    const std::vector<std::string_view> fields = wordsOf(std::string_view(stat).substr(nameEnd + 1));
    constexpr size_t kState = 0;
    constexpr size_t kParent = 1;
    constexpr size_t kStartTime = 19;
    if (fields.size() <= kStartTime || fields[kState] == "Z" || fields[kState] == "X") return std::nullopt;
    Process process;
    process.id = id;
    process.parentId = static_cast<uint32_t>(toNumber(fields[kParent]));
    process.created = toNumber(fields[kStartTime]);
    process.started = toLocal((boot + static_cast<int64_t>(process.created) * 1000 / ::sysconf(_SC_CLK_TCK)) / 1000);
    std::string program = imageOf(id);
    if (program.empty()) program = firstWord(id);
    process.name = program.substr(program.rfind('/') + 1);
    return process;
}

// The inodes of the sockets that are bound to the port here.
std::set<std::string> socketsOn(const std::string& table, uint16_t port) {
    std::set<std::string> inodes;
    const std::vector<std::string_view> words = wordsOf(table);
    constexpr size_t kLocal = 1;
    constexpr size_t kInode = 9;
    for (size_t i = 0; i + kInode < words.size(); ++i) {
        // A row begins with its number and a colon; its addresses are "ADDRESS:PORT" in hexadecimal digits.
        if (!words[i].ends_with(':')) continue;
        const std::string_view local = words[i + kLocal];
        const size_t colon = local.find(':');
        if (colon == std::string_view::npos || toNumber(local.substr(colon + 1), 16) != port) continue;
        const std::string_view address = local.substr(0, colon);
        if (address == "00000000" || address == "0100007F")
            inodes.insert("socket:[" + std::string(words[i + kInode]) + ']');
    }
    return inodes;
}

std::vector<uint32_t> processIds() {
    std::vector<uint32_t> ids;
    for (const std::string& name : namesIn("/proc"))
        if (const uint64_t id = toNumber(name)) ids.push_back(static_cast<uint32_t>(id));
    return ids;
}

} // namespace

const bool kIsWindows = false;
const char kSeparator = '/';
const char* const kServiceFile = "quorkeri_service";
const char* const kHealthFile = "quorkeri_health";

std::vector<Process> processes() {
    const int64_t boot = bootTime();
    std::vector<Process> all;
    for (const uint32_t id : processIds())
        if (auto process = processOf(id, boot)) all.push_back(*std::move(process));
    return all;
}

std::string imageOf(uint32_t processId) {
    std::string path = linkOf(ofProcess(processId, "exe"));
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    if (!path.empty()) return path;
    const std::string word = firstWord(processId);
    return word.starts_with('/') ? word : "";
}

std::string finalPath(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> found(::realpath(path.c_str(), nullptr), &::free);
    return found ? found.get() : path;
}

uint32_t ownId() {
    return static_cast<uint32_t>(::getpid());
}

std::string endProcess(const Process& process) {
    const auto fd = static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(process.id), 0U));
    if (fd < 0) return errno == ESRCH ? "" : std::strerror(errno);
    const std::unique_ptr<const int, void (*)(const int*)> closer(&fd, [](const int* it) { ::close(*it); });
    // The descriptor stays with the process that has the id now, so the check below cannot be overtaken by a new one.
    const auto found = processOf(process.id, bootTime());
    if (!found || found->created != process.created || imageOf(process.id) != process.image) return "";
    if (::syscall(SYS_pidfd_send_signal, fd, SIGKILL, nullptr, 0U) != 0 && errno != ESRCH) return std::strerror(errno);
    pollfd waiting{fd, POLLIN, 0};
    constexpr int kLimitMs = 10'000;
    return ::poll(&waiting, 1, kLimitMs) == 1 ? "" : "it has not ended within 10 seconds";
}

Registration registration(const char* /*serviceName*/) {
    return {};
}

std::string startService(const char* /*serviceName*/) {
    return "there is no service manager here; start it in the foreground with service-console";
}

std::optional<std::vector<uint32_t>> portHolders(uint16_t port) {
    const std::string table = readSystemFile("/proc/self/net/udp");
    if (table.empty()) return std::nullopt;
    std::set<std::string> sockets = socketsOn(table, port);
    std::vector<uint32_t> holders;
    if (sockets.empty()) return holders;
    std::set<std::string> found;
    for (const uint32_t id : processIds()) {
        for (const std::string& name : namesIn(ofProcess(id, "fd"))) {
            const std::string target = linkOf(ofProcess(id, "fd/").append(name));
            if (!sockets.contains(target)) continue;
            found.insert(target);
            if (holders.empty() || holders.back() != id) holders.push_back(id);
        }
    }
    if (found.size() < sockets.size()) holders.push_back(0);
    return holders;
}

std::string keriDirectory(const std::string& root) {
    NS_UTL::RegFile registry;
    if (!registry.load(root + "/settings/registry.reg")) return "";
    const auto* value =
        registry.findValue(std::string("HKEY_LOCAL_MACHINE\\") + service::kKeriKey, service::kKeriValue);
    return value && value->type == NS_UTL::RegType::Sz ? value->bytes.c_str() : "";
}

FileState fileState(const std::string& path) {
    FileState out;
    struct stat status{};
    if (::stat(path.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return out;
        out.kind = FileState::Kind::Unreadable;
        out.reason = std::strerror(errno);
        return out;
    }
    out.size = static_cast<uint64_t>(status.st_size);
    out.written = toLocal(status.st_mtime);
    out.kind = InputFile(path) ? FileState::Kind::There : FileState::Kind::Unreadable;
    if (out.kind == FileState::Kind::Unreadable) out.reason = std::strerror(errno);
    return out;
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(directory.c_str()), &::closedir);
    while (const dirent* entry = open ? ::readdir(open.get()) : nullptr) names.emplace_back(entry->d_name);
    return names;
}

InputFile::InputFile(const std::string& path) : m_handle(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}

InputFile::~InputFile() {
    const int error = errno;
    if (m_handle != kNone) ::close(static_cast<int>(m_handle));
    errno = error;
}

size_t InputFile::read(char* buffer, size_t size) {
    const ssize_t length = ::read(static_cast<int>(m_handle), buffer, size);
    return length < 0 ? 0 : static_cast<size_t>(length);
}

std::optional<uint64_t> freeBytes(const std::string& path) {
    struct statvfs status{};
    if (::statvfs(path.c_str(), &status) != 0) return std::nullopt;
    return uint64_t{status.f_bavail} * status.f_frsize;
}

int64_t now() {
    return ::time(nullptr);
}

void print(const std::string& text) {
    std::string_view rest = text;
    for (ssize_t length = 0; !rest.empty() && (length = ::write(STDOUT_FILENO, rest.data(), rest.size())) > 0;)
        rest.remove_prefix(static_cast<size_t>(length));
}

} // namespace health::machine
