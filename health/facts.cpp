#include "health/facts.h"

#include <algorithm>
#include <string_view>

#include "service/names.h"
#include "utl/utl_commandline.h"

namespace health {
namespace {

std::string readAll(const std::string& path) {
    machine::InputFile file(path);
    std::string bytes;
    // The service's own log has at most 5 MB and a line. The limit here is for any other file under its name.
    constexpr size_t kMost = 16U << 20U;
    constexpr size_t kBlock = 1U << 16U;
    for (size_t length = 1; file && length != 0 && bytes.size() < kMost;) {
        const size_t before = bytes.size();
        bytes.resize(before + kBlock);
        length = file.read(bytes.data() + before, kBlock);
        bytes.resize(before + length);
    }
    return bytes;
}

bool isSameContent(const std::string& left, const std::string& right) {
    machine::InputFile leftFile(left);
    machine::InputFile rightFile(right);
    if (!leftFile || !rightFile) return false;
    std::vector<char> leftBlock(1U << 16U);
    std::vector<char> rightBlock(leftBlock.size());
    for (;;) {
        const size_t length = leftFile.read(leftBlock.data(), leftBlock.size());
        if (rightFile.read(rightBlock.data(), rightBlock.size()) != length) return false;
        if (length == 0) return true;
        if (!std::equal(leftBlock.begin(), leftBlock.begin() + static_cast<ptrdiff_t>(length), rightBlock.begin()))
            return false;
    }
}

bool isService(const Process& process) {
    return isSamePath(process.name, machine::kServiceFile);
}

const Process* findById(const std::vector<Process>& all, uint32_t id) {
    const auto found = std::ranges::find(all, id, &Process::id);
    return found == all.end() ? nullptr : &*found;
}

// The parent, unless its id belongs to a younger process by now.
const Process* parentOf(const Process& process, const std::vector<Process>& all) {
    const Process* parent = findById(all, process.parentId);
    return parent && parent->created <= process.created ? parent : nullptr;
}

// While a service that has crashed writes its dump, a second process of its program watches from outside. It is a child
// of the first one, and no service.
bool isCrashWatcher(const Process& process, const std::vector<Process>& all) {
    const Process* parent = parentOf(process, all);
    return parent && isService(*parent) && isSamePath(parent->image, process.image);
}

PortHolder::Who whoIs(const Process& process, const std::vector<Companion>& companions) {
    const auto found = std::ranges::find(companions, process.id, [](const Companion& it) { return it.process.id; });
    if (found == companions.end()) return process.id == 0 ? PortHolder::Who::Unknown : PortHolder::Who::Foreign;
    switch (found->owner) {
        case Companion::Owner::Service:
            return PortHolder::Who::Child;
        case Companion::Owner::Nobody:
            return PortHolder::Who::Orphan;
        case Companion::Owner::Other:
            break;
    }
    return PortHolder::Who::Elsewhere;
}

std::optional<std::vector<PortHolder>> portHolders(const std::vector<Process>& all,
                                                   const std::vector<Companion>& companions) {
    const auto ids = machine::portHolders(service::kStopPort);
    if (!ids) return std::nullopt;
    std::vector<PortHolder> holders;
    for (const uint32_t id : *ids) {
        Process process;
        process.id = id;
        if (const Process* found = findById(all, id)) process = *found;
        if (id != 0 && process.image.empty()) process.image = machine::imageOf(id);
        holders.push_back({process, whoIs(process, companions)});
    }
    return holders;
}

bool beginsAsProgram(const std::string& path) {
    machine::InputFile file(path);
    char bytes[2] = {};
    if (!file || file.read(bytes, sizeof bytes) != sizeof bytes) return false;
    const std::string_view begin(bytes, sizeof bytes);
    return machine::kIsWindows ? begin == "MZ" : begin == "\177E" || begin == "#!";
}

Library::State stateOf(const std::string& here, const std::string& there) {
    const FileState inBin = machine::fileState(here);
    const FileState inKeri = machine::fileState(there);
    const bool isHere = inBin.kind == FileState::Kind::There;
    if (inKeri.kind != FileState::Kind::There)
        return isHere ? Library::State::MissingInKeri : Library::State::MissingInBoth;
    if (!isHere) return Library::State::MissingInBin;
    return inBin.size == inKeri.size && isSameContent(here, there) ? Library::State::Same : Library::State::Differs;
}

std::vector<Library> librariesOf(const Installation& installation, const std::string& keriDirectory) {
    std::vector<Library> libraries;
    for (const char* name : service::kLibraries) {
        const std::string here = Installation::in(installation.bin, name);
        if (!keriDirectory.empty())
            libraries.push_back({name, stateOf(here, Installation::in(keriDirectory, name))});
        else if (machine::fileState(here).kind == FileState::Kind::Missing)
            libraries.push_back({name, Library::State::MissingInBoth});
    }
    return libraries;
}

// A dump is overwritten by the next crash of the same build, and its directory may be closed to plain users; the
// history beside the log has a line "2026-01-02 03:04:05: NAME VERSION" for each crash.
std::optional<Crash> lastCrash(const Installation& installation, LocalSeconds after) {
    Crash last;
    for (const std::string& name : machine::namesIn(installation.dumps)) {
        if (!name.ends_with(".dmp")) continue;
        const FileState file = machine::fileState(Installation::in(installation.dumps, name));
        if (file.written > last.time) last = {file.written, name};
    }
    const std::string history = readAll(Installation::in(installation.logs, "dumps.log"));
    const size_t lineBegin = history.rfind('\n', history.find_last_not_of("\r\n")) + 1;
    LocalSeconds time = 0;
    // The line follows its dump, on a busy machine some seconds later.
    constexpr LocalSeconds kLineAfterDump = 60;
    if (parseTime(std::string_view(history).substr(lineBegin), &time) && time > last.time + kLineAfterDump)
        last = {time, "dumps.log"};
    if (last.time <= after) return std::nullopt;
    return last;
}

} // namespace

Companion::Owner ownerOf(const Process& companion, const Installation& installation, const std::vector<Process>& all) {
    const Process* parent = parentOf(companion, all);
    const bool hasService = parent && isService(*parent);
    // A plain user may not be allowed to see images. Then the companion counts as that of its running parent.
    const bool isOurs = companion.image.empty()
                            ? hasService && (parent->image.empty() || isSamePath(parent->image, installation.service))
                            : isSamePath(companion.image, installation.companion);
    if (!isOurs) return Companion::Owner::Other;
    return hasService ? Companion::Owner::Service : Companion::Owner::Nobody;
}

// This product registers its path without quotes and without arguments, so an unquoted command is a path as a whole.
std::string programOf(const std::string& command) {
    if (!command.starts_with('"')) return machine::finalPath(command);
    const std::vector<std::string> words = NS_UTL::splitCommandLine(command);
    return words.empty() ? "" : machine::finalPath(words.front());
}

std::vector<Companion> companionsOf(const Installation& installation, std::vector<Process>& all) {
    for (Process& process : all)
        if (isService(process) || isSamePath(process.name, service::kCompanionName))
            process.image = machine::imageOf(process.id);
    std::vector<Companion> companions;
    for (const Process& process : all)
        if (isSamePath(process.name, service::kCompanionName))
            companions.push_back({process, ownerOf(process, installation, all)});
    return companions;
}

std::optional<Process> findService(const Installation& installation, const Registration& registration,
                                   const std::vector<Process>& all) {
    const Process* found = nullptr;
    for (const Process& process : all) {
        if (!isService(process) || isCrashWatcher(process, all)) continue;
        const bool isManaged = registration.processId != 0 && process.id == registration.processId;
        const bool isOurs = isSamePath(process.image, installation.service) || (isManaged && process.image.empty());
        if (isOurs && (isManaged || !found)) found = &process;
        if (isOurs && isManaged) break;
    }
    return found ? std::optional(*found) : std::nullopt;
}

Facts gather(const Installation& installation, uint32_t hours) {
    Facts facts;
    facts.installation = installation;
    facts.registration = machine::registration(service::kServiceName);
    facts.registeredProgram = programOf(facts.registration.command);
    std::vector<Process> all = machine::processes();
    facts.companions = companionsOf(installation, all);
    facts.service = findService(installation, facts.registration, all);
    facts.isForeground = facts.service && facts.registration.answer == Registration::Answer::Registered &&
                         facts.service->id != facts.registration.processId;
    facts.portHolders = portHolders(all, facts.companions);
    facts.companionFile = machine::fileState(installation.companion);
    facts.isCompanionProgram = beginsAsProgram(installation.companion);
    const std::string log = Installation::in(installation.logs, "service.log");
    facts.logFile = machine::fileState(log);
    // Read the clock after the log, so that no line is newer than it.
    const std::string old = readAll(log + ".old");
    const std::string current = readAll(log);
    facts.now = toLocal(machine::now());
    facts.log = readServiceLog(old, current, facts.now);
    facts.keriDirectory = machine::keriDirectory(installation.root);
    facts.libraries = librariesOf(installation, facts.keriDirectory);
    facts.crash = lastCrash(installation, facts.now - hours * LocalSeconds{3600});
    facts.freeBytes = machine::freeBytes(installation.logs);
    return facts;
}

} // namespace health
