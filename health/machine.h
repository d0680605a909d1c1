#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "health/local_time.h"

// What the program asks of the operating system, one source per platform. Paths and texts are UTF-8. Nothing here logs
// or throws, and only endProcess and startService change anything. For one thread.
namespace health::machine {

extern const bool kIsWindows;
extern const char kSeparator; // between directories
extern const char* const kServiceFile;
extern const char* const kHealthFile;

struct Process {
    uint32_t id = 0;
    uint32_t parentId = 0; // by now this may be another process's id, because ids are reused
    uint64_t created = 0;  // in the system's own ticks; only for comparing
    LocalSeconds started = 0;
    std::string name;  // the file's
    std::string image; // the file's full path; see imageOf

    bool operator==(const Process&) const = default;
};

// All running processes, at one moment. `image` is empty in each.
std::vector<Process> processes();

// The full path of a process's program; empty when the system does not give it.
std::string imageOf(uint32_t processId);

// The path of a file as imageOf gives it, however it is written: with short names, or through a link. The path itself
// when there is no such file.
std::string finalPath(const std::string& path);

uint32_t ownId();

// Ends a process by its id, and only if it is still the same one. It opens a handle, which keeps the id from being
// given to another process, and then compares the program's image and the time of creation. Waits up to ten seconds for
// the end. Returns an empty text on success and when the process had ended by itself, else the reason of the failure.
std::string endProcess(const Process& process);

// What the service manager knows of a service.
struct Registration {
    enum class Answer { NoManager, Refused, NotRegistered, Registered };
    enum class State { Stopped, Starting, Stopping, Running };

    Answer answer = Answer::NoManager;
    std::string reason; // of Refused
    State state = State::Stopped;
    uint32_t processId = 0;  // 0: none
    bool hasAborted = false; // stopped, because its process ended without saying so
    bool isDisabled = false;
    std::string command; // as it is registered
};

Registration registration(const char* serviceName);

// Asks the manager to start the service. Empty, or the reason why it is not started; running already is success.
std::string startService(const char* serviceName);

// The processes that listen on a UDP port of 127.0.0.1 or of all addresses; 0 stands for one that the system does not
// name. Nothing when the system gives no list.
std::optional<std::vector<uint32_t>> portHolders(uint16_t port);

// The registered directory of the Keri software, without changing the registry; `root` is the installation's, for
// Linux' registry file. Empty when it is not registered or has no location.
std::string keriDirectory(const std::string& root);

struct FileState {
    enum class Kind { Missing, Unreadable, There };

    Kind kind = Kind::Missing;
    std::string reason; // of Unreadable
    uint64_t size = 0;
    LocalSeconds written = 0;
};

FileState fileState(const std::string& path);

// The names of the files in a directory; none when it cannot be read.
std::vector<std::string> namesIn(const std::string& directory);

// A file open for reading. Others may read, write, rename and delete it meanwhile.
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    explicit operator bool() const { return m_handle != kNone; }

    // Up to `size` bytes; 0 at the end, and when reading fails.
    size_t read(char* buffer, size_t size);

private:
    static constexpr intptr_t kNone = -1;
    intptr_t m_handle = kNone;
};

// How many bytes this user may still write to the disk that holds `path`.
std::optional<uint64_t> freeBytes(const std::string& path);

// UTC, seconds since 1970.
int64_t now();

// Writes to standard output: a console, a file or a pipe.
void print(const std::string& text);

} // namespace health::machine
