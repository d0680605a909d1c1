#include "health/findings.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "health/report.h"

namespace health {
namespace {

constexpr LocalSeconds kNow = 1'700'000'000;
constexpr LocalSeconds kStarted = kNow - 86'400;
constexpr uint32_t kServiceId = 100;
constexpr uint32_t kCompanionId = 200;
const std::string kRoot = machine::kIsWindows ? R"(C:\Keri Wrapper)" : "/opt/Keri Wrapper";

Process process(uint32_t id, uint32_t parent, const std::string& image) {
    return {id, parent, /*created=*/id, kStarted, image, image};
}

// A service under a manager with its companion, and nothing wrong.
Facts healthy() {
    Facts facts;
    facts.now = kNow;
    facts.installation = *Installation::of(Installation::in(Installation::in(kRoot, "bin"), "quorkeri_health.exe"));
    facts.registration.answer = Registration::Answer::Registered;
    facts.registration.state = Registration::State::Running;
    facts.registration.processId = kServiceId;
    facts.registeredProgram = facts.installation.service;
    facts.service = process(kServiceId, 1, facts.installation.service);
    const Process companion = process(kCompanionId, kServiceId, facts.installation.companion);
    facts.companions = {{companion, Companion::Owner::Service}};
    facts.portHolders = {{companion, PortHolder::Who::Child}};
    facts.companionFile.kind = FileState::Kind::There;
    facts.isCompanionProgram = true;
    facts.logFile = {FileState::Kind::There, "", 1000, kStarted};
    facts.log.lastLine = kStarted;
    facts.keriDirectory = "Keri";
    facts.libraries = {{"DHS.dll", Library::State::Same}};
    facts.freeBytes = uint64_t{1000} << 20U;
    return facts;
}

void endCompanion(Facts& facts) {
    facts.companions.clear();
    facts.portHolders->clear();
}

void endService(Facts& facts) {
    facts.service.reset();
    facts.registration.state = Registration::State::Stopped;
    endCompanion(facts);
}

void askToStop(Facts& facts, LocalSeconds time) {
    facts.registration.state = Registration::State::Stopping;
    facts.log.stop = time;
}

void hold(Facts& facts, PortHolder::Who who) {
    facts.portHolders->push_back({process(300, 1, "/elsewhere/x.exe"), who});
}

struct Case {
    const char* what;
    std::function<void(Facts&)> change;
    std::vector<std::string> findings; // the worst first
    std::string says;                  // somewhere in the sentences and cures
};

const std::string kOwnProgram = machine::kIsWindows ? R"("C:\Keri Wrapper\bin\quorkeri_health.exe")"
                                                    : R"("/opt/Keri Wrapper/bin/quorkeri_health.exe")";
const std::string kEnd = machine::kIsWindows ? "taskkill /f /pid " : "kill -9 ";

const Case kCases[] = {
    {"healthy", [](Facts&) {}, {}, ""},
    // Service
    {"manager refuses",
     [](Facts& f) {
         f.registration = {};
         f.registration.answer = Registration::Answer::Refused;
         f.registration.reason = "denied";
     },
     {"service-unknown"},
     "state of the service: denied"},
    {"not registered",
     [](Facts& f) {
         endService(f);
         f.registration.answer = Registration::Answer::NotRegistered;
     },
     {"service-missing"},
     "The service is not registered"},
    {"another's is registered",
     [](Facts& f) {
         endService(f);
         f.registeredProgram = "elsewhere";
     },
     {"service-elsewhere"},
     "another installation's: elsewhere"},
    {"stopped", endService, {"service-stopped"}, "Start it: "},
    {"disabled",
     [](Facts& f) {
         endService(f);
         f.registration.isDisabled = true;
     },
     {"service-disabled"},
     "never to start it"},
    {"crashed",
     [](Facts& f) {
         endService(f);
         f.registration.hasAborted = true;
     },
     {"service-dead"},
     kOwnProgram + " --recover"},
    {"dead, and the manager has not noticed",
     [](Facts& f) {
         endService(f);
         f.registration.state = Registration::State::Running;
     },
     {"service-dead"},
     ""},
    {"starting",
     [](Facts& f) { f.registration.state = Registration::State::Starting; },
     {"service-starting"},
     "Ask again"},
    {"starting, and no process yet",
     [](Facts& f) {
         endService(f);
         f.registration.state = Registration::State::Starting;
     },
     {"service-starting"},
     ""},
    {"in the foreground",
     [](Facts& f) {
         f.isForeground = true;
         f.registration.state = Registration::State::Stopped;
     },
     {"service-foreground"},
     "process 100"},
    {"without a manager", [](Facts& f) { f.registration = {}; }, {}, ""},
    // Stop
    {"stop in the deployment",
     [](Facts& f) {
         askToStop(f, kNow);
         endCompanion(f);
     },
     {"stopping"},
     "at 2023-11-14 22:13:20"},
    {"first start after the stop", [](Facts& f) { askToStop(f, kStarted - 1); }, {"stop-lost"}, kEnd + "100"},
    {"first start in the second of the stop", [](Facts& f) { askToStop(f, kStarted); }, {"stop-waits"}, kEnd + "200"},
    {"start under way at the stop",
     [](Facts& f) {
         askToStop(f, kStarted - 1);
         f.log.restartsBeforeStop = f.log.restartsAfterStop = 1;
     },
     {"stop-waits"},
     "process 200"},
    {"restarts after the stop",
     [](Facts& f) {
         askToStop(f, kStarted - 1);
         endCompanion(f);
         f.log.restartsBeforeStop = 1;
         f.log.restartsAfterStop = 2;
     },
     {"stop-lost"},
     "--clear-orphan"},
    {"a stop without a line",
     [](Facts& f) { f.registration.state = Registration::State::Stopping; },
     {"stop-waits"},
     "at some time"},
    {"stop without a manager",
     [](Facts& f) {
         askToStop(f, kNow);
         f.registration = {};
     },
     {"stop-waits"},
     ""},
    // Companion and port
    {"companion missing",
     [](Facts& f) {
         f.companionFile = {};
         f.isCompanionProgram = false;
     },
     {"companion-missing"},
     "PATH"},
    {"companion no program", [](Facts& f) { f.isCompanionProgram = false; }, {"companion-damaged"}, "Replace it"},
    {"start fails without a reason",
     [](Facts& f) {
         endCompanion(f);
         f.log.startFailure = "";
     },
     {"companion-damaged"},
     ""},
    {"start fails",
     [](Facts& f) {
         endCompanion(f);
         f.log.startFailure = "Access denied.";
     },
     {"companion-refused"},
     "cannot be started: Access denied."},
    {"an earlier start failed", [](Facts& f) { f.log.startFailure = "Access denied."; }, {}, ""},
    {"pausing", endCompanion, {"companion-none"}, ""},
    {"orphan",
     [](Facts& f) {
         endService(f);
         f.companions = {{process(201, 99, f.installation.companion), Companion::Owner::Nobody}};
         f.portHolders = {{f.companions[0].process, PortHolder::Who::Orphan}};
     },
     {"service-stopped", "orphan"},
     "process 201 of this installation has lost its service and holds UDP port 34002"},
    {"another's companion",
     [](Facts& f) { f.companions.push_back({process(300, 1, "elsewhere"), Companion::Owner::Other}); },
     {"companion-elsewhere"},
     "process 300, elsewhere"},
    {"another's companion on the port",
     [](Facts& f) {
         hold(f, PortHolder::Who::Elsewhere);
         f.companions.push_back({f.portHolders->back().process, Companion::Owner::Other});
     },
     {"port-elsewhere"},
     kEnd + "300"},
    {"foreign program on the port", [](Facts& f) { hold(f, PortHolder::Who::Foreign); }, {"port-foreign"}, "x.exe"},
    {"nameless holder", [](Facts& f) { hold(f, PortHolder::Who::Unknown); }, {"port-unknown"}, ""},
    {"no word about the port", [](Facts& f) { f.portHolders.reset(); }, {"port-unknown"}, ""},
    {"companion deaf for long", [](Facts& f) { f.portHolders->clear(); }, {"port-unheld"}, kEnd + "200"},
    {"companion not listening yet",
     [](Facts& f) {
         f.portHolders->clear();
         f.companions[0].process.started = f.logFile.written = kNow - 60;
     },
     {},
     ""},
    {"one restart", [](Facts& f) { f.log.restartsLastHour = 1; }, {"restarts"}, "started: 1"},
    {"19 restarts", [](Facts& f) { f.log.restartsLastHour = 19; }, {"restarts"}, ""},
    {"20 restarts", [](Facts& f) { f.log.restartsLastHour = 20; }, {"restarts-many"}, "20 restarts"},
    // Log, libraries, crashes, disk
    {"no log",
     [](Facts& f) {
         f.logFile = {};
         f.log = {};
     },
     {"log-missing"},
     "service.log is missing"},
    {"empty log",
     [](Facts& f) {
         f.logFile.size = 0;
         f.log = {};
     },
     {"log-missing"},
     ""},
    {"log put aside a moment ago", [](Facts& f) { f.logFile = {}; }, {}, ""},
    {"no log without a service",
     [](Facts& f) {
         endService(f);
         f.logFile = {};
     },
     {"service-stopped"},
     ""},
    {"log of an earlier life", [](Facts& f) { f.logFile.written = kStarted - 6; }, {"log-stale"}, "written last at"},
    {"restart that is not in the log",
     [](Facts& f) { f.companions[0].process.started = kStarted + 601; },
     {"log-stale"},
     ""},
    {"log closed to us",
     [](Facts& f) { f.logFile = {FileState::Kind::Unreadable, "denied", 0, 0}; },
     {"log-unreadable"},
     "cannot be read: denied"},
    {"Keri not registered", [](Facts& f) { f.keriDirectory.clear(); }, {"keri-missing"}, "InstallLocation"},
    {"libraries",
     [](Facts& f) {
         f.libraries = {{"a.dll", Library::State::MissingInBin},  {"b.dll", Library::State::MissingInBin},
                        {"c.dll", Library::State::Differs},       {"d.dll", Library::State::MissingInKeri},
                        {"e.dll", Library::State::MissingInBoth}, {"f.dll", Library::State::Same}};
     },
     {"library-missing", "library-gone", "library-differs", "library-source"},
     "bin: a.dll, b.dll"},
    {"crash", [](Facts& f) { f.crash = {kNow, "x.dmp"}; }, {"crash-dump"}, "x.dmp"},
    {"enough room", [](Facts& f) { f.freeBytes = uint64_t{500} << 20U; }, {}, ""},
    {"little room", [](Facts& f) { f.freeBytes = (uint64_t{500} << 20U) - 1; }, {"disk-low"}, "499 MB are free"},
    {"no room", [](Facts& f) { f.freeBytes = (uint64_t{50} << 20U) - 1; }, {"disk-full"}, "49 MB are free"},
    {"room not told", [](Facts& f) { f.freeBytes.reset(); }, {}, ""},
};

TEST(Findings, FollowFromTheFacts) {
    std::set<std::string> seen;
    for (const Case& row : kCases) {
        Facts facts = healthy();
        row.change(facts);
        std::vector<std::string> names;
        std::string sentences;
        for (const Finding& finding : judge(facts)) {
            names.emplace_back(finding.name);
            sentences += finding.text + '\n' + finding.cure + '\n';
        }
        EXPECT_EQ(names, row.findings) << row.what;
        EXPECT_NE(sentences.find(row.says), std::string::npos) << row.what << ":\n" << sentences;
        EXPECT_EQ(sentences.find_first_of("{}"), std::string::npos) << row.what << ":\n" << sentences;
        seen.insert(names.begin(), names.end());
    }
    for (const Finding& finding : catalogue()) EXPECT_TRUE(seen.contains(finding.name)) << finding.name;
}

TEST(Findings, AreWeighedAsMonitoringExpectsIt) {
    const auto codeOf = [](std::vector<Severity> severities) {
        std::vector<Finding> findings;
        for (const Severity severity : severities) findings.push_back({"x", severity, "", ""});
        return exitCode(worstOf(findings));
    };
    EXPECT_EQ(codeOf({}), 0);
    EXPECT_EQ(codeOf({Severity::Warning, Severity::Unknown}), 1);
    EXPECT_EQ(codeOf({Severity::Unknown, Severity::Critical, Severity::Warning}), 2);
    EXPECT_EQ(codeOf({Severity::Unknown}), 3);
}

TEST(Report, IsOneLineWithFiguresBehindItsOnlyBar) {
    Facts facts = healthy();
    facts.log.restartsLastHour = 2;
    EXPECT_EQ(lineOf(facts, {}),
              "OK: service process 100 has run since 2023-11-13 22:13:20, with its companion | restarts=2;0;19 "
              "companions=1;1:1 orphans=0;;0 free=1000MB;500:;50:\n");
    facts.freeBytes.reset();
    facts.companions[0].owner = Companion::Owner::Nobody;
    EXPECT_EQ(lineOf(facts, {{"a", Severity::Critical, "one\r\ntwo", "x | y"}, {"b", Severity::Warning, "c", "d"}}),
              "CRITICAL: [a] one  two. x / y [b] c. d | restarts=2;0;19 companions=1;1:1 orphans=1;;0\n");
}

TEST(Report, IsAnObjectForAProgram) {
    Facts facts = healthy();
    facts.installation.root = "C:\\\"a\"\n";
    facts.companions.clear();
    facts.libraries = {{"DHS.dll", Library::State::MissingInKeri}};
    const std::string started = R"("started": "2023-11-13 22:13:20"})";
    const std::string image = machine::kIsWindows ? R"(C:\\Keri Wrapper\\bin\\)" : "/opt/Keri Wrapper/bin/";
    EXPECT_EQ(jsonOf(facts, {{"a", Severity::Unknown, "b", "c"}}),
              R"({"status": "UNKNOWN", "code": 3, "time": "2023-11-14 22:13:20", "root": "C:\\\"a\"\u000a", )"
              R"("findings": [{"name": "a", "severity": "UNKNOWN", "text": "b", "cure": "c"}], "state": "running", )"
              R"("service": {"pid": 100, "program": ")" +
                  image + machine::kServiceFile + "\", " + started + R"(, "companions": [], "port": [{"pid": 200, )" +
                  R"("program": ")" + image + R"(quorkeri_wrapper.exe", "who": "child", )" + started +
                  R"(], "restarts": 0, "lastLine": "2023-11-13 22:13:20", "keri": "Keri", )"
                  R"("libraries": [{"name": "DHS.dll", "state": "missing in Keri"}], "crash": null, )"
                  R"("freeBytes": 1048576000})"
                  "\n");
}

} // namespace
} // namespace health
