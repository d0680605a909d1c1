#include "health/findings.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/text/core_varargs.h"
#include "health/commands.h"

namespace health {
namespace {

// A finding before its values are known: {name} stands for a value, of the finding or of the installation.
struct Kind {
    const char* name;
    Severity severity;
    const char* text;
    const char* cure;
    bool needsManager = false; // applies only where there is a service manager
};

constexpr const char* kAskAgain = "Ask again in ten seconds: {health}";
constexpr const char* kAskWithRights = "Ask again at an administrator's prompt: {health}";
constexpr const char* kSeeConsole =
    "Check that {logs} exists and can be written, and see what the service says in the foreground: "
    "{stop}{then}{console}";
constexpr const char* kEndOther = "Stop that installation, or end the process: {kill}";

// Service and stop
constexpr Kind kServiceUnknown{"service-unknown", Severity::Unknown,
                               "Windows does not report the state of the service: {reason}", kAskWithRights,
                               /*needsManager=*/true};
constexpr Kind kServiceMissing{"service-missing", Severity::Critical, "The service is not registered",
                               "Register it and start it: {install}{then}{start}", /*needsManager=*/true};
constexpr Kind kServiceElsewhere{
    "service-elsewhere", Severity::Critical, "The registered service is another installation's: {program}",
    "Use that installation, or register this one in its place: {stop}{then}{unregister}{then}{install}{then}{start}",
    /*needsManager=*/true};
constexpr Kind kServiceDisabled{"service-disabled", Severity::Critical,
                                "The service is stopped and disabled: Windows is set never to start it",
                                "Enable it and start it: {enable}{then}{start}", /*needsManager=*/true};
constexpr Kind kServiceStopped{"service-stopped", Severity::Critical, "The service is stopped", "Start it: {start}"};
constexpr Kind kServiceDead{"service-dead", Severity::Critical,
                            "The process of the service has ended, and nobody had stopped it",
                            "End the companion that it left behind, and start it: {health} --recover"};
constexpr Kind kServiceStarting{"service-starting", Severity::Warning, "The service is starting", kAskAgain,
                                /*needsManager=*/true};
constexpr Kind kServiceForeground{"service-foreground", Severity::Warning,
                                  "The service was started by hand and runs in the foreground, as process {pid}",
                                  "End it with Ctrl+C in its window, then start the registered one: {start}",
                                  /*needsManager=*/true};
constexpr Kind kStopLost{"stop-lost", Severity::Critical,
                         "The service was asked to stop at {time}, lost the request, and started its companion again",
                         "End its process, then its companion: {kill}{then}{health} --clear-orphan; use --recover "
                         "instead to start it as well"};
constexpr Kind kStopWaits{"stop-waits", Severity::Warning,
                          "The service was asked to stop at {time} and waits for its companion, process {pid}, to end",
                          "End the companion: {kill}"};
constexpr Kind kStopping{"stopping", Severity::Warning,
                         "The service was asked to stop at {time} and has not stopped yet", kAskAgain};

// Companion and port
constexpr Kind kCompanionMissing{
    "companion-missing", Severity::Critical,
    "{companion} is missing, so a program of that name anywhere on the PATH is started, with the rights of the service",
    "Put it there, from the companion's own software: {copy}"};
constexpr Kind kCompanionDamaged{"companion-damaged", Severity::Critical,
                                 "{companion} is damaged: it is not a program that can be started",
                                 "Replace it, from the companion's own software: {copy}"};
constexpr Kind kCompanionRefused{"companion-refused", Severity::Critical,
                                 "{companion} is there and cannot be started: {reason}",
                                 "Start it by hand to see why: {run}"};
constexpr Kind kCompanionNone{"companion-none", Severity::Warning,
                              "The service has no companion at this moment: it copies libraries, or pauses for five "
                              "seconds before the next start",
                              kAskAgain};
constexpr Kind kOrphan{"orphan", Severity::Critical,
                       "Companion process {pid} of this installation has lost its service{port}",
                       "End it: {health} --clear-orphan"};
constexpr Kind kCompanionElsewhere{"companion-elsewhere", Severity::Warning,
                                   "A companion of another installation runs: process {pid}, {program}", kEndOther};
constexpr Kind kPortElsewhere{"port-elsewhere", Severity::Critical,
                              "A companion of another installation holds UDP port 34002: process {pid}, {program}",
                              kEndOther};
constexpr Kind kPortForeign{"port-foreign", Severity::Critical,
                            "Another program holds UDP port 34002: process {pid}, {program}",
                            "Give that program another port, or end it: {kill}"};
constexpr Kind kPortUnknown{"port-unknown", Severity::Unknown, "The system does not report who holds UDP port 34002",
                            kAskWithRights};
constexpr Kind kPortUnheld{
    "port-unheld", Severity::Warning,
    "Companion process {pid} does not listen on UDP port 34002, so that a stop will not reach it",
    "End it, and the service starts it again: {kill}"};
constexpr Kind kRestarts{
    "restarts", Severity::Warning,
    "Restarts of the companion in the last hour, because it ended or could not be started: {count}",
    "See how it ends when it is started by hand: {stop}{then}{run}"};
constexpr Kind kRestartsMany{"restarts-many", Severity::Critical,
                             "The companion cannot run: {count} restarts in the last hour", kRestarts.cure};

// Log, libraries, crashes, disk
constexpr Kind kLogMissing{"log-missing", Severity::Warning, "The service runs, and {log} is missing or empty",
                           kSeeConsole};
constexpr Kind kLogUnreadable{"log-unreadable", Severity::Unknown, "{log} cannot be read: {reason}", kAskWithRights};
constexpr Kind kLogStale{"log-stale", Severity::Warning,
                         "{log} is stale: it was written last at {time}, and the service has been active since",
                         kSeeConsole};
constexpr Kind kKeriMissing{"keri-missing", Severity::Warning,
                            "The Keri software is not registered, or its registration has no InstallLocation",
                            "Install or repair the Keri software, then start the service again: {restart}"};
constexpr Kind kLibraryMissing{"library-missing", Severity::Critical, "Keri libraries are missing in {bin}: {names}",
                               "Start the service again, which copies them: {restart}"};
constexpr Kind kLibraryGone{"library-gone", Severity::Critical,
                            "Keri libraries are missing in {bin}, and there is nowhere to copy them from: {names}",
                            kKeriMissing.cure};
constexpr Kind kLibraryDiffers{"library-differs", Severity::Warning,
                               "Keri libraries in {bin} are not those of {keri}: {names}", kLibraryMissing.cure};
constexpr Kind kLibrarySource{"library-source", Severity::Warning, "Keri libraries are missing in {keri}: {names}",
                              kKeriMissing.cure};
constexpr Kind kCrash{"crash-dump", Severity::Warning, "The service crashed at {time}: {dump}",
                      "Send the dump with a support bundle: {bundle}"};
constexpr Kind kDiskFull{"disk-full", Severity::Critical, "The disk of {logs} is full: {free} MB are free",
                         "Make room on it; delete old support bundles first: {delete}"};
constexpr Kind kDiskLow{"disk-low", Severity::Warning, "The disk of {logs} is nearly full: {free} MB are free",
                        kDiskFull.cure};

constexpr const Kind* kKinds[] = {
    &kServiceUnknown,     &kServiceMissing,   &kServiceElsewhere, &kServiceDisabled,
    &kServiceStopped,     &kServiceDead,      &kServiceStarting,  &kServiceForeground,
    &kStopLost,           &kStopWaits,        &kStopping,         &kCompanionMissing,
    &kCompanionDamaged,   &kCompanionRefused, &kCompanionNone,    &kOrphan,
    &kCompanionElsewhere, &kPortElsewhere,    &kPortForeign,      &kPortUnknown,
    &kPortUnheld,         &kRestarts,         &kRestartsMany,     &kLogMissing,
    &kLogUnreadable,      &kLogStale,         &kKeriMissing,      &kLibraryMissing,
    &kLibraryGone,        &kLibraryDiffers,   &kLibrarySource,    &kCrash,
    &kDiskFull,           &kDiskLow,
};

uint64_t megabytes(uint64_t bytes) {
    return bytes >> 20U;
}

// The values that every template may use.
Values valuesOf(const Installation& installation, const std::string& serviceId) {
    Values values = {{"health", quoted(installation.health)},
                     {"companion", installation.companion},
                     {"run", quoted(installation.companion)},
                     {"bin", installation.bin},
                     {"logs", installation.logs},
                     {"log", Installation::in(installation.logs, "service.log")}};
    const Values commands = commandsOf(installation, serviceId);
    values.insert(values.end(), commands.begin(), commands.end());
    return values;
}

std::string fill(std::string_view text, const Values& values, const Values& more) {
    std::string out;
    for (size_t begin = 0; (begin = text.find('{')) != std::string_view::npos;) {
        out += text.substr(0, begin);
        const size_t end = text.find('}');
        const std::string_view name = text.substr(begin + 1, end - begin - 1);
        for (const Values* list : {&more, &values})
            if (const auto found = std::ranges::find(*list, name, &Value::first); found != list->end()) {
                out += found->second;
                break;
            }
        text.remove_prefix(end + 1);
    }
    return out.append(text);
}

// Collects the findings; one function for each subject.
class Judge {
public:
    explicit Judge(const Facts& facts)
        : m_facts(facts),
          m_values(valuesOf(facts.installation, facts.service ? std::to_string(facts.service->id) : "PID")) {}

    std::vector<Finding> all() {
        // A missing companion comes before a stopped service: it has to be there before the start.
        judgeCompanionFile();
        judgeService();
        judgeStop();
        judgeCompanions();
        judgePort();
        judgeRestarts();
        judgeLog();
        judgeLibraries();
        judgeCrash();
        judgeDisk();
        std::ranges::stable_sort(m_findings, std::ranges::greater(), &Finding::severity);
        return std::move(m_findings);
    }

private:
    void add(const Kind& kind, const Values& values = {}) {
        m_findings.push_back(
            {kind.name, kind.severity, fill(kind.text, m_values, values), fill(kind.cure, m_values, values)});
    }

    void addProcess(const Kind& kind, const Process& process, std::string port = "") {
        const std::string program = !process.image.empty()  ? process.image
                                    : !process.name.empty() ? process.name
                                                            : "which has ended";
        add(kind, {{"pid", std::to_string(process.id)},
                   {"program", program},
                   {"kill", endCommand(std::to_string(process.id))},
                   {"port", std::move(port)}});
    }

    const Companion* child() const {
        const auto found = std::ranges::find_if(m_facts.companions, [this](const Companion& companion) {
            return companion.owner == Companion::Owner::Service && m_facts.service &&
                   companion.process.parentId == m_facts.service->id;
        });
        return found == m_facts.companions.end() ? nullptr : &*found;
    }

    bool holdsPort(uint32_t id) const {
        return m_facts.portHolders &&
               std::ranges::any_of(*m_facts.portHolders, [id](const PortHolder& it) { return it.process.id == id; });
    }

    bool isStopping() const {
        if (m_facts.registration.answer == Registration::Answer::Registered && !m_facts.isForeground)
            return m_facts.registration.state == Registration::State::Stopping;
        return m_facts.log.stop.has_value();
    }

    void judgeService() {
        const Registration& registration = m_facts.registration;
        switch (registration.answer) {
            case Registration::Answer::Refused:
                return add(kServiceUnknown, {{"reason", registration.reason}});
            case Registration::Answer::NotRegistered:
                add(kServiceMissing);
                break;
            case Registration::Answer::Registered:
                if (!isSamePath(m_facts.registeredProgram, m_facts.installation.service))
                    return add(kServiceElsewhere, {{"program", m_facts.registeredProgram}});
                break;
            case Registration::Answer::NoManager:
                break;
        }
        if (m_facts.service) {
            if (m_facts.isForeground) addProcess(kServiceForeground, *m_facts.service);
            if (!m_facts.isForeground && registration.state == Registration::State::Starting) add(kServiceStarting);
            return;
        }
        if (registration.answer == Registration::Answer::NotRegistered) return;
        if (registration.state == Registration::State::Starting) return add(kServiceStarting);
        // If the manager still reports a dead process as running, it has not noticed its end yet. Otherwise Windows
        // records whether the process ended without stopping.
        const bool isDead = registration.hasAborted || registration.state != Registration::State::Stopped;
        add(isDead ? kServiceDead : registration.isDisabled ? kServiceDisabled : kServiceStopped);
    }

    // A stop is lost when the service starts its companion after it. Each start but the first follows a restart line in
    // the log. One such line may have been logged at the same moment as the stop; two prove it. The first start has no
    // line, so the companion's start time is compared with the stop's.
    bool isStopLost(const Companion* companion) const {
        const LogSummary& log = m_facts.log;
        if (!log.stop) return false;
        return log.restartsAfterStop > 1 ||
               (log.restartsBeforeStop == 0 && companion && companion->process.started > *log.stop);
    }

    void judgeStop() {
        if (!m_facts.service || !isStopping()) return;
        const Value time{"time", m_facts.log.stop ? timeText(*m_facts.log.stop) : "some time"};
        const Companion* companion = child();
        if (isStopLost(companion))
            add(kStopLost, {time, {"kill", endCommand(std::to_string(m_facts.service->id))}});
        else if (companion)
            add(kStopWaits, {time,
                             {"pid", std::to_string(companion->process.id)},
                             {"kill", endCommand(std::to_string(companion->process.id))}});
        else
            add(kStopping, {time});
    }

    void judgeCompanions() {
        for (const auto& [process, owner] : m_facts.companions) {
            if (owner == Companion::Owner::Nobody)
                addProcess(kOrphan, process, holdsPort(process.id) ? " and holds UDP port 34002" : "");
            if (owner == Companion::Owner::Other && !holdsPort(process.id)) addProcess(kCompanionElsewhere, process);
        }
        if (m_facts.service && !child() && !isStopping() && !m_facts.log.startFailure) add(kCompanionNone);
    }

    void judgePort() {
        if (!m_facts.portHolders) return add(kPortUnknown);
        for (const auto& [process, who] : *m_facts.portHolders) {
            if (who == PortHolder::Who::Elsewhere) addProcess(kPortElsewhere, process);
            if (who == PortHolder::Who::Foreign) addProcess(kPortForeign, process);
            if (who == PortHolder::Who::Unknown) add(kPortUnknown);
        }
        const Companion* companion = child();
        constexpr LocalSeconds kTimeToListen = 60;
        if (companion && m_facts.portHolders->empty() && m_facts.now - companion->process.started > kTimeToListen)
            addProcess(kPortUnheld, companion->process);
    }

    void judgeCompanionFile() {
        if (m_facts.companionFile.kind == FileState::Kind::Missing) return add(kCompanionMissing);
        if (m_facts.companionFile.kind == FileState::Kind::There && !m_facts.isCompanionProgram)
            return add(kCompanionDamaged);
        const std::optional<std::string>& reason = m_facts.log.startFailure;
        if (!m_facts.service || child() || !reason) return;
        // Windows' text for a damaged program has a place for its name, and is therefore logged empty.
        if (reason->empty()) return add(kCompanionDamaged);
        add(kCompanionRefused, {{"reason", *reason}});
    }

    void judgeRestarts() {
        const uint32_t count = m_facts.log.restartsLastHour;
        if (count != 0) add(count >= kManyRestarts ? kRestartsMany : kRestarts, {{"count", std::to_string(count)}});
    }

    // The service logs when it starts, and before each start of its companion but the first.
    bool isLogStale(const Process& service) const {
        constexpr LocalSeconds kTimeToCopy = 600;
        constexpr LocalSeconds kTimeToLog = 5;
        const Companion* companion = child();
        return m_facts.logFile.written + kTimeToLog < service.started ||
               (companion && m_facts.logFile.written + kTimeToCopy < companion->process.started);
    }

    void judgeLog() {
        const FileState& file = m_facts.logFile;
        if (file.kind == FileState::Kind::Unreadable) return add(kLogUnreadable, {{"reason", file.reason}});
        if (!m_facts.service) return;
        // After a rotation the log is missing until the next line is written.
        if ((file.kind == FileState::Kind::Missing || file.size == 0) &&
            m_facts.log.lastLine < m_facts.service->started)
            return add(kLogMissing);
        if (file.kind == FileState::Kind::There && isLogStale(*m_facts.service))
            add(kLogStale, {{"time", timeText(file.written)}});
    }

    void addLibraries(const Kind& kind, Library::State state) {
        std::string names;
        for (const Library& library : m_facts.libraries)
            if (library.state == state) names += (names.empty() ? "" : ", ") + library.name;
        if (!names.empty()) add(kind, {{"names", names}, {"keri", m_facts.keriDirectory}});
    }

    void judgeLibraries() {
        if (m_facts.keriDirectory.empty()) add(kKeriMissing);
        addLibraries(kLibraryMissing, Library::State::MissingInBin);
        addLibraries(kLibraryGone, Library::State::MissingInBoth);
        addLibraries(kLibraryDiffers, Library::State::Differs);
        addLibraries(kLibrarySource, Library::State::MissingInKeri);
    }

    void judgeCrash() {
        if (!m_facts.crash) return;
        const bool isHistory = !m_facts.crash->name.ends_with(".dmp");
        const Installation& at = m_facts.installation;
        add(kCrash, {{"time", timeText(m_facts.crash->time)},
                     {"dump", Installation::in(isHistory ? at.logs : at.dumps, m_facts.crash->name)}});
    }

    void judgeDisk() {
        if (!m_facts.freeBytes) return;
        const uint64_t free = megabytes(*m_facts.freeBytes);
        if (free < kLowMegabytes) add(free < kFullMegabytes ? kDiskFull : kDiskLow, {{"free", std::to_string(free)}});
    }

    const Facts& m_facts;
    const Values m_values;
    std::vector<Finding> m_findings;
};

} // namespace

int exitCode(Severity severity) {
    switch (severity) {
        case Severity::Ok:
            return 0;
        case Severity::Warning:
            return 1;
        case Severity::Critical:
            return 2;
        case Severity::Unknown:
            break;
    }
    return 3;
}

const char* severityText(Severity severity) {
    constexpr const char* kTexts[] = {"OK", "UNKNOWN", "WARNING", "CRITICAL"};
    return kTexts[static_cast<size_t>(severity)];
}

std::vector<Finding> judge(const Facts& facts) {
    return Judge(facts).all();
}

Severity worstOf(const std::vector<Finding>& findings) {
    Severity worst = Severity::Ok;
    for (const Finding& finding : findings) worst = std::max(worst, finding.severity);
    return worst;
}

std::vector<Finding> catalogue() {
    const auto installation =
        Installation::of(Installation::in(Installation::in(kSampleRoot, "bin"), machine::kHealthFile));
    Values values = valuesOf(installation.value_or(Installation()), "PID");
    for (const auto& [name, sample] : {std::pair("reason", "REASON"),
                                       {"program", "PROGRAM"},
                                       {"pid", "PID"},
                                       {"time", "TIME"},
                                       {"count", "COUNT"},
                                       {"names", "NAMES"},
                                       {"keri", "DIRECTORY"},
                                       {"dump", "DUMP"},
                                       {"free", "COUNT"},
                                       {"port", " [and holds UDP port 34002]"}})
        values.emplace_back(name, sample);
    values.emplace_back("kill", endCommand("PID"));
    std::vector<Finding> all;
    for (const Kind* kind : kKinds)
        if (machine::kIsWindows || !kind->needsManager)
            all.push_back({kind->name, kind->severity, fill(kind->text, values, {}), fill(kind->cure, values, {})});
    return all;
}

std::string figures(const Facts& facts) {
    size_t orphans = 0;
    for (const Companion& companion : facts.companions) orphans += companion.owner == Companion::Owner::Nobody;
    // "U" is the plug-ins' notation for an unknown figure.
    const bool isKnown = facts.logFile.kind != FileState::Kind::Unreadable;
    std::string text = NS_CORE::formatString("restarts=%s;0;%u companions=%zu;1:1 orphans=%zu;;0",
                                             isKnown ? std::to_string(facts.log.restartsLastHour) : "U",
                                             kManyRestarts - 1, facts.companions.size(), orphans);
    if (facts.freeBytes)
        text += NS_CORE::formatString(" free=%lluMB;%llu:;%llu:", megabytes(*facts.freeBytes), kLowMegabytes,
                                      kFullMegabytes);
    return text;
}

} // namespace health
