#pragma once

#include <optional>
#include <string>
#include <vector>

#include "health/installation.h"
#include "health/local_time.h"
#include "health/machine.h"
#include "health/servicelog.h"

namespace health {

using machine::FileState;
using machine::Process;
using machine::Registration;

// A companion that runs.
struct Companion {
    enum class Owner {
        Service, // the running service of this installation
        Nobody,  // this installation's, but the service that started it has ended: an orphan
        Other,   // another installation's, or the system does not say whose
    };

    Process process;
    Owner owner = Owner::Nobody;
};

// A process that listens on the stop port.
struct PortHolder {
    enum class Who {
        Child,     // a companion with Owner::Service
        Orphan,    // a companion with Owner::Nobody
        Elsewhere, // a companion with Owner::Other
        Foreign,   // another program
        Unknown,   // the system does not name the process
    };

    Process process;
    Who who = Who::Unknown;
};

// One of the Keri libraries: in bin, and where the Keri software lies.
struct Library {
    enum class State { Same, Differs, MissingInBin, MissingInKeri, MissingInBoth };

    std::string name;
    State state = State::Same;
};

struct Crash {
    LocalSeconds time = 0;
    std::string name; // of the dump's file, or dumps.log where that is all there is
};

// Everything that the findings are judged from, gathered at one moment.
struct Facts {
    LocalSeconds now = 0;
    Installation installation;

    Registration registration;
    std::string registeredProgram;  // taken from the registered command
    std::optional<Process> service; // the running service of this installation
    bool isForeground = false;      // started by hand, while there is a service manager

    std::vector<Companion> companions;
    std::optional<std::vector<PortHolder>> portHolders; // nothing: the system does not say
    FileState companionFile;
    bool isCompanionProgram = false; // begins with a program's signature

    FileState logFile;
    LogSummary log;

    std::string keriDirectory; // empty: not registered
    std::vector<Library> libraries;

    std::optional<Crash> crash; // the newest one in the hours asked for
    std::optional<uint64_t> freeBytes;
};

// Looks at everything, and changes nothing.
// hours  how far back a crash counts.
Facts gather(const Installation& installation, uint32_t hours);

// The running companions and their owners. gather() uses it, and so do --clear-orphan and --recover. Fills in the
// images of all services and companions in `all`.
std::vector<Companion> companionsOf(const Installation& installation, std::vector<Process>& all);

// The owner of a companion. The images must be filled in, as far as the system gives them.
Companion::Owner ownerOf(const Process& companion, const Installation& installation, const std::vector<Process>& all);

// The service's process: the one that the service manager names, or else one that runs in the foreground; nothing when
// neither runs. A crash's watcher, which runs the same program, does not count.
std::optional<Process> findService(const Installation& installation, const Registration& registration,
                                   const std::vector<Process>& all);

// The program of a registered command, in the form in which the system names the images of processes.
std::string programOf(const std::string& command);

} // namespace health
