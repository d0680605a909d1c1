#include <fstream>
#include <functional>
#include <map>

#include "health/local_time.h"
#include "health/machine.h"
#include "tests/health/health_fixture.h"
#include "tests/support/child.h"
#include "tests/support/udp_receiver.h"
#include "tests/system/await.h"

// The health check of an installation that is really in trouble.
namespace test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

std::map<fs::path, std::pair<uintmax_t, fs::file_time_type>> filesOf(const fs::path& root) {
    std::map<fs::path, std::pair<uintmax_t, fs::file_time_type>> files;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        // What it printed goes to one of them.
        if (entry.is_regular_file() && entry.path().filename() != "health.txt")
            files[entry.path()] = {entry.file_size(), entry.last_write_time()};
    return files;
}

void append(const fs::path& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary | std::ios::app) << bytes;
}

std::string stamp(int64_t secondsAgo) {
    return health::timeText(health::toLocal(health::machine::now() - secondsAgo));
}

// Lines of companions that ended.
std::string restarts(int count) {
    std::string line = stamp(60);
    line.insert(10, line.substr(7, 3).replace(0, 1, " ")).append(" " + line::failed + '\n');
    std::string lines;
    for (int i = 0; i < count; ++i) lines += line;
    return lines;
}

TEST_F(HealthTest, IsContentWithAHealthyServiceAndChangesNothing) {
    startWithCompanion();
    const auto before = filesOf(m_installation.root());
    const Health health = ask();
    EXPECT_EQ(health.code, 0);
    EXPECT_TRUE(health.says("OK: service process " + std::to_string(m_service.processId()) + " has run since "))
        << health.text;
    EXPECT_TRUE(health.says(" | restarts=0;0;19 companions=1;1:1 orphans=0;;0 free="));
    const Health json = ask({"--json"});
    EXPECT_EQ(json.code, 0);
    EXPECT_TRUE(json.says(R"({"status": "OK", "code": 0, )")) << json.text;
    EXPECT_TRUE(json.says(R"("who": "child")")) << json.text;
    EXPECT_EQ(filesOf(m_installation.root()), before);
    EXPECT_EQ(ask({"--help"}).code, 0);
    EXPECT_EQ(ask({"--version"}).text.substr(0, 16), "quorkeri_health ");
    EXPECT_EQ(ask({"--clear"}).code, 3);
}

TEST_F(HealthTest, FindsAndEndsWhatAKilledServiceLeavesAndNothingElse) {
    startWithCompanion();
    const Installation other("other");
    registerKeri(m_installation.root(), pathText(m_installation.keri()));
    other.setCompanion("mute");
    Process stranger(other.companion(), {}, other.output());
    other.awaitRecord("ready");
    EXPECT_EQ(ask().findings, Names{"companion-elsewhere"});
    EXPECT_EQ(ask({"--clear-orphan"}).text, "There is no orphaned companion of this installation.\n");
    const uint32_t companion = m_installation.records("ready").front().processId;
    EXPECT_TRUE(processRuns(companion, m_installation.root()));

    m_service.kill();
    const Health health = ask();
    EXPECT_EQ(health.code, 2);
    EXPECT_EQ(health.findings, (Names{"companion-elsewhere", "orphan", kDead}));
    EXPECT_TRUE(health.says("Companion process " + std::to_string(companion) +
                            " of this installation has lost its service and holds UDP port 34002."))
        << health.text;
    const Health cleared = ask({"--clear-orphan"});
    EXPECT_EQ(cleared.code, 0);
    EXPECT_TRUE(cleared.text.starts_with("Ended orphaned companion process " + std::to_string(companion) + ','))
        << cleared.text;
    EXPECT_FALSE(processRuns(companion, m_installation.root()));
    EXPECT_EQ(stranger.awaitExit(seconds(0)), std::nullopt);
    EXPECT_EQ(ask().findings, (Names{"companion-elsewhere", kDead}));
}

TEST_F(HealthTest, FindsACompanionOfAnotherInstallationOnThePort) {
    const Installation other("other");
    registerKeri(m_installation.root(), pathText(m_installation.keri()));
    addHealth(other.bin());
    Process stranger(other.companion(), {}, other.output());
    other.awaitRecord("ready");
    m_service.start();
    m_installation.awaitLog(line::failed);
    const Health health = ask();
    EXPECT_EQ(health.code, 2);
    EXPECT_TRUE(health.has("port-elsewhere") && health.has("restarts")) << health.text;
    EXPECT_TRUE(health.says("process " + std::to_string(stranger.id()) + ", " + pathText(other.companion())))
        << health.text;
    // To its own installation it is an orphan.
    EXPECT_TRUE(test::ask(other).has("orphan"));
    EXPECT_EQ(test::ask(other, {"--clear-orphan"}).code, 0);
    EXPECT_TRUE(stranger.awaitExit().has_value());
    m_installation.awaitRecord("ready");
    EXPECT_EQ(ask().findings, Names{"restarts"});
}

TEST_F(HealthTest, FindsAForeignProgramOnThePort) {
    UdpReceiver receiver(kStopPort);
    // Wine does not know the owner of a socket that was never used.
    sendDatagram(kStopPort, 1);
    receiver.receive();
    const Health health = ask();
    EXPECT_EQ(health.findings, (Names{"port-foreign", "service-stopped"}));
    EXPECT_TRUE(health.says("Another program holds UDP port 34002: process " +
                            std::to_string(health::machine::ownId()) + ", " + pathText(fromText(thisProgram()))))
        << health.text;
}

TEST_F(HealthTest, KnowsAStopThatWasLostWhileLibrariesWereCopiedAndTheWayOut) {
    HeldDeployment deployment(m_installation.root());
    m_service.start();
    deployment.awaitReader();
    m_service.requestStop();
    EXPECT_TRUE(ask().has("stopping"));
    awaitLaterSecond();
    deployment.release();
    m_installation.awaitRecord("ready");
    const Health health = ask();
    EXPECT_EQ(health.code, 2);
    EXPECT_TRUE(health.has("stop-lost")) << health.text;
    EXPECT_TRUE(health.says(" " + std::to_string(m_service.processId()) + (health::machine::kIsWindows ? " & " : "; ")))
        << health.text;
    m_service.kill();
    EXPECT_EQ(ask({"--clear-orphan"}).code, 0);
    const Health after = ask();
    EXPECT_FALSE(after.has("stop-lost") || after.has("orphan")) << after.text;
}

TEST_F(HealthTest, WaitsWithTheServiceForACompanionThatIgnoresTheStop) {
    startWithCompanion("ignore all");
    m_service.requestStop();
    const Health health = ask();
    EXPECT_EQ(health.code, 1);
    EXPECT_EQ(health.findings, Names{"stop-waits"});
    const uint32_t companion = m_installation.records("ready").front().processId;
    EXPECT_TRUE(health.says(" and waits for its companion, process " + std::to_string(companion) + ", to end."));
    endProcess(companion, m_installation.root());
    m_service.awaitStopped();
    EXPECT_EQ(ask().findings, Names{"service-stopped"});
}

TEST_F(HealthTest, SeesTheCrashAndItsDump) {
    startWithCompanion();
    crash(m_service, m_installation);
    EXPECT_TRUE(await([this] { return fs::exists(m_installation.logFile().parent_path() / "dumps.log"); }));
    EXPECT_TRUE(await([this] { return !processRuns(m_service.processId(), m_installation.root()); }));
    for (const auto& dump : fs::directory_iterator(m_installation.root() / "work" / "dumps"))
        fs::last_write_time(dump.path(), dump.last_write_time() - seconds(5)); // the history's line may come later
    const Health health = ask();
    EXPECT_TRUE(health.has("crash-dump") && health.says("quorkeri_service-")) << health.text;
}

TEST_F(HealthTest, SaysWhyTheCompanionCannotBeStarted) {
    // It begins as a program does, and is none.
    writeFile(m_installation.companion(), health::machine::kIsWindows ? "MZ" : "\177ELF");
    m_service.start();
    m_installation.awaitLog(line::failed);
    const Health damaged = ask();
    EXPECT_EQ(damaged.findings,
              (Names{notAProgramText().empty() ? "companion-damaged" : "companion-refused", "restarts"}));
    fs::remove(m_installation.companion());
    EXPECT_EQ(ask().findings, (Names{"companion-missing", "restarts"}));
}

TEST_F(HealthTest, SeesTheCompanionsPause) {
    m_installation.setCompanion("exit 1");
    m_service.start();
    m_installation.awaitLog(line::failed);
    EXPECT_EQ(ask().findings, (Names{"companion-none", "restarts"}));
}

TEST_F(HealthTest, FindsWhatIsWrongWithTheFiles) {
    const fs::path bin = m_installation.bin();
    const fs::path logs = m_installation.logFile().parent_path();
    const fs::path keri = m_installation.keri();
    const fs::path old = fs::path(m_installation.logFile()) += ".old";
    fs::create_directories(logs.parent_path() / "dumps");
    struct Row {
        std::function<void()> change;
        Names findings; // besides that the service is stopped
        std::vector<std::string> words = {};
    };
    for (const auto& [change, findings, words] : {
             Row{[&] { fs::remove(bin / "DHS.dll"); }, {"library-missing"}},
             Row{[&] { fs::remove(keri / "DHS.dll"); }, {"library-gone"}},
             Row{[&] { writeFile(bin / "DHS.dll", "old"); }, {"library-source"}},
             Row{[&] { writeFile(keri / "DHS.dll", "new"); }, {"library-differs"}},
             Row{[&] { writeFile(bin / "DHS.dll", "new"); }, {}},
             Row{[&] { unregisterKeri(m_installation.root()); }, {"keri-missing"}},
             Row{[&] { registerKeri(m_installation.root(), pathText(keri / "")); }, {}},
             Row{[&] { writeFile(m_installation.companion(), ""); }, {"companion-damaged"}},
             Row{[&] { fs::remove(m_installation.companion()); }, {"companion-missing"}},
             Row{[&] { m_installation.putCompanion(); }, {}},
             Row{[&] { append(old, restarts(1)); }, {"restarts"}},
             Row{[&] { append(m_installation.logFile(), restarts(19)); }, {"restarts-many"}},
             Row{[&] { fs::remove(old), fs::remove(m_installation.logFile()); }, {}},
             Row{[&] { append(logs / "dumps.log", stamp(90'000) + ": quorkeri_service tag_x\n"); }, {}},
             Row{[] {}, {"crash-dump"}, {"--since", "26"}},
             Row{[&] { append(logs / "dumps.log", stamp(10) + ": quorkeri_service tag_x\n"); }, {"crash-dump"}},
             Row{[&] { fs::remove(logs / "dumps.log"); }, {}},
             Row{[&] { writeFile(logs.parent_path() / "dumps" / "quorkeri_service-tag_x.dmp", "x"); }, {"crash-dump"}},
         }) {
        change();
        Names expected = findings;
        expected.push_back("service-stopped");
        const Health health = ask(words);
        EXPECT_EQ(health.findings, expected) << health.text;
    }
}

TEST_F(HealthTest, MissesALogThatTheServiceShouldHaveWritten) {
    startWithCompanion();
    const std::string log = readFile(m_installation.logFile());
    fs::remove(m_installation.logFile());
    EXPECT_EQ(ask().findings, Names{"log-missing"});
    writeFile(m_installation.logFile(), log);
    fs::last_write_time(m_installation.logFile(), fs::file_time_type::clock::now() - std::chrono::hours(1));
    EXPECT_EQ(ask().findings, Names{"log-stale"});
}

TEST_F(HealthTest, EndsAProcessOnlyIfItIsStillTheSame) {
    m_installation.setCompanion("mute");
    Process companion(m_installation.companion(), {}, m_installation.output());
    m_installation.awaitRecord("ready");
    health::machine::Process known;
    for (const health::machine::Process& process : health::machine::processes())
        if (process.id == companion.id()) known = process;
    known.image = health::machine::imageOf(known.id);
    EXPECT_EQ(known.image, pathText(m_installation.companion()));
    EXPECT_EQ(known.parentId, health::machine::ownId());
    health::machine::Process younger = known;
    ++younger.created;
    health::machine::Process renamed = known;
    renamed.image += "x";
    EXPECT_EQ(health::machine::endProcess(younger), "");
    EXPECT_EQ(health::machine::endProcess(renamed), "");
    EXPECT_EQ(companion.awaitExit(seconds(0)), std::nullopt);
    EXPECT_EQ(health::machine::endProcess(known), "");
    EXPECT_TRUE(companion.awaitExit().has_value());
    EXPECT_EQ(health::machine::endProcess(known), "") << "it has ended by itself";
}

TEST(HealthPlace, IsTheBinOfAnInstallation) {
    const TempDir directory;
    Process process(addHealth(directory.path()), {}, directory.path() / "out");
    EXPECT_EQ(process.awaitExit(), 3);
    EXPECT_TRUE(readFile(directory.path() / "out").starts_with("UNKNOWN: this program does not lie in the bin"));
}

} // namespace
} // namespace test
