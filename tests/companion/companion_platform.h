#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// What the companion needs of the operating system. One thread; all texts are UTF-8.
namespace companion {

// The running program's own file.
std::filesystem::path ownFile();

// The command line as it was given: word by word on Linux, with blanks between.
std::string commandLine();

// Everything that was open in the process when it was asked first, one text each: the number, what it is, and its name
// where it has one. To be called before the program opens anything itself.
std::vector<std::string> openThings();

uint32_t processId();

// Appends the bytes in one write and hands them to the system before it returns.
void append(const std::filesystem::path& file, const std::string& bytes);

// Opens the file so that nobody else can write it (nobody else can open it at all on Windows) until the process ends.
// False when it cannot be opened.
bool hold(const std::filesystem::path& file);

// Ends the process at once, running nothing on the way out.
[[noreturn]] void endNow(int code);

// Ends the process by a fault, without a debugger, a dump or a window.
[[noreturn]] void crash();

struct Datagram {
    size_t length;
    std::string sender; // address:port
};

// The port on which the stop request arrives.
class StopPort {
public:
    StopPort() = default;
    ~StopPort();
    StopPort(const StopPort&) = delete;
    StopPort& operator=(const StopPort&) = delete;

    // Binds UDP 127.0.0.1:port. Returns 0, or the system's error number.
    int open(uint16_t port);

    // Waits for a datagram; nothing when the port fails.
    std::optional<Datagram> receive();

    // Returns as soon as a datagram is there, looking without a pause and touching nothing else.
    void spin();

private:
    intptr_t m_socket = -1;
};

} // namespace companion
