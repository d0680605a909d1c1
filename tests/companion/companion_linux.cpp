#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>

#include "tests/companion/companion_platform.h"

namespace companion {
namespace {

// The texts of a file in /proc that separates them with zero bytes.
std::vector<std::string> zeroSeparated(const char* file) {
    std::vector<std::string> texts;
    std::ifstream in(file, std::ios::binary);
    for (std::string text; std::getline(in, text, '\0');) texts.push_back(text);
    return texts;
}

} // namespace

std::filesystem::path ownFile() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

std::string commandLine() {
    std::string text;
    for (const std::string& word : zeroSeparated("/proc/self/cmdline")) text += (text.empty() ? "" : " ") + word;
    return text;
}

std::vector<std::string> openThings() {
    std::vector<std::string> things;
    // Asked one by one: listing the directory would open one more.
    constexpr int kHighest = 1024;
    for (int fd = 0; fd < kHighest; ++fd) {
        if (fcntl(fd, F_GETFD) == -1) continue;
        std::error_code error;
        const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
        things.push_back(std::to_string(fd) + ' ' + target.string());
    }
    return things;
}

uint32_t processId() {
    return static_cast<uint32_t>(getpid());
}

void append(const std::filesystem::path& file, const std::string& bytes) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd == -1) endNow(5);
    const bool whole = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    ::close(fd);
    if (!whole) endNow(6);
}

bool hold(const std::filesystem::path& file) {
    return ::open(file.c_str(), O_RDONLY | O_CLOEXEC) != -1;
}

void endNow(int code) {
    _exit(code);
}

void crash() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    std::signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
    endNow(7);
}

StopPort::~StopPort() {
    if (m_socket != -1) ::close(static_cast<int>(m_socket));
}

int StopPort::open(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return errno;
    m_socket = fd;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
}

std::optional<Datagram> StopPort::receive() {
    char bytes[65536];
    sockaddr_in sender{};
    socklen_t size = sizeof(sender);
    const ssize_t length =
        ::recvfrom(static_cast<int>(m_socket), bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&sender), &size);
    if (length < 0) return std::nullopt;
    return Datagram{static_cast<size_t>(length),
                    std::string(inet_ntoa(sender.sin_addr)) + ':' + std::to_string(ntohs(sender.sin_port))};
}

void StopPort::spin() {
    char byte = 0;
    while (::recv(static_cast<int>(m_socket), &byte, sizeof(byte), MSG_DONTWAIT) < 0 && errno == EAGAIN) {
    }
}

} // namespace companion
