#include <gtest/gtest.h>
#include <windows.h>

#include <sddl.h>

#include <aclapi.h>

#include <functional>
#include <optional>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_rights.h"
#include "tests/installation/packages_win32.h"
#include "tests/support/open_sharing_win32.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wine_win32.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/service_manager_win32.h"

// An administrator's dealings with the packages, from the outside: installation, the same again, repair, upgrade,
// downgrade and removal, by the installer package and by the zip, with the service running, stopped, and held by a
// companion that ignores the stop; and installations that have to be refused. After each, the files, the registry and
// the service control manager are compared with what the administrator's guide says.
namespace test {
namespace {

namespace fs = std::filesystem;
using Files = std::set<std::string>;

const std::string kWithinUpgrade = "UPGRADINGPRODUCTCODE={00000000-0000-0000-0000-000000000001}";
const std::string kErrorReporting = "HKLM\\Software\\Microsoft\\Windows\\Windows Error Reporting\\LocalDumps";
constexpr const char* kForeign = "C:\\windows\\system32\\spoolsv.exe";

class Lives : public PackagesTest, public testing::WithParamInterface<PackagesTest::Before> {
public:
    static std::string nameOf(const testing::TestParamInfo<PackagesTest::Before>& info);

protected:
    bool isHeld() const { return GetParam() == Before::Held; }
    // What an administrator would add to the installer's command then.
    std::string words() const { return isHeld() ? "STOPTIMEOUT=1" : ""; }
    // After an action has started the service for the count-th time: it works, and then the state is as before.
    void settle(size_t count, const std::string& name, bool isByPackage, const Files& more = {}) const {
        awaitCompanion(count);
        expectWorking(name, isByPackage, more);
        if (GetParam() == Before::Stopped) stopService();
    }
    // What goes on, for the message of a failure.
    void step(const char* name) { m_step.emplace(__FILE__, __LINE__, name); }

private:
    std::optional<testing::ScopedTrace> m_step;
};

std::string Lives::nameOf(const testing::TestParamInfo<PackagesTest::Before>& info) {
    static const char* const kNames[] = {"Running", "Stopped", "Held"};
    return kNames[static_cast<size_t>(info.param)];
}

TEST_P(Lives, ByTheInstallerPackage) {
    step("installation");
    putCompanion(isHeld() ? "ignore all" : "");
    expectSucceeded(installHere("old"));
    settle(1, "old", /*isByPackage=*/true);

    step("the same again");
    expectSucceeded(install("old", words()));
    settle(2, "old", /*isByPackage=*/true);

    step("repair");
    fs::remove(installation() / "settings" / "testing.ini.sample");
    if (GetParam() == Before::Stopped) writeFile(bin() / kServiceName, "damaged");
    expectSucceeded(install("old", "REINSTALL=ALL " + words()));
    settle(3, "old", /*isByPackage=*/true);

    step("upgrade");
    const Files own = {"settings/testing.ini", "work/dumps/x.dmp"};
    for (const std::string& file : own) writeFile(installation() / file, "an administrator's");
    {
        // Somebody reads the log, and has a prompt there: no reason for a restart of the machine.
        const fs::path log = installation() / "work" / "logs" / "service.log";
        const auto reader = openSharing(log, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        fs::current_path(log.parent_path());
        expectSucceeded(install("new", words()));
        fs::current_path(drive());
    }
    settle(4, "new", /*isByPackage=*/true, own);

    step("downgrade");
    const Files before = programs();
    expectRefused([&] { return install("old", words()); },
                  "A newer version of Quorvane Keri Wrapper is installed already. Nothing was changed. To go back to "
                  "version " +
                      version("old") + ", remove the newer one first");
    EXPECT_EQ(programs(), before);

    step("removal");
    expectSucceeded(remove("new", words()));
    expectLeft(kCompanionFiles + kLog + own);
}

TEST_P(Lives, ByTheZip) {
    step("installation");
    unzip("old");
    putCompanion(isHeld() ? "ignore all" : "");
    ASSERT_EQ(serviceCommand("service-install"), 0U);
    startService();
    settle(1, "old", /*isByPackage=*/false);

    step("the same again");
    const Facts before = facts();
    const Files running = programs();
    EXPECT_EQ(serviceCommand("service-install"), 0U);
    EXPECT_EQ(facts(), before);
    EXPECT_EQ(programs(), running);

    const std::pair<const char*, const char*> replacements[] = {
        {"repair", "old"}, {"upgrade", "new"}, {"downgrade", "old"}};
    size_t starts = 1;
    for (const auto& [name, files] : replacements) {
        step(name);
        if (GetParam() != Before::Stopped) stopService(isHeld());
        unzip(files);
        startService();
        settle(++starts, files, /*isByPackage=*/false);
    }

    step("removal");
    if (GetParam() != Before::Stopped) stopService(isHeld());
    EXPECT_EQ(serviceCommand("service-remove"), 0U);
    expectLeft(files(installation()));
    fs::remove_all(installation());
    expectLeft({});
}

INSTANTIATE_TEST_SUITE_P(Service, Lives,
                         testing::Values(PackagesTest::Before::Running, PackagesTest::Before::Stopped,
                                         PackagesTest::Before::Held),
                         Lives::nameOf);

// What a command at the prompt prints.
std::string said(const std::string& command) {
    const fs::path output = PackagesTest::base() / "said.txt";
    run("cmd /c " + command + " > " + utf8(output), PackagesTest::base());
    const std::string text = readFile(output);
    fs::remove(output);
    return text;
}

// How often error reporting's settings have this.
size_t countInErrorReporting(const std::string& part) {
    const std::string settings = said("reg query \"" + kErrorReporting + "\" /s /reg:64");
    size_t count = 0;
    for (size_t at = settings.find(part); at != std::string::npos; at = settings.find(part, at + 1)) ++count;
    return count;
}

// Owner and access list as Windows writes them.
std::string rightsOf(const fs::path& path) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    constexpr SECURITY_INFORMATION kWhat = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    ::GetNamedSecurityInfoW(path.wstring().data(), SE_FILE_OBJECT, kWhat, nullptr, nullptr, nullptr, nullptr,
                            &descriptor);
    const NS_CORE::ScopedLocalMemory<void> owner(descriptor);
    wchar_t* text = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kWhat, &text, nullptr);
    const NS_CORE::ScopedLocalMemory<wchar_t> textOwner(text);
    return text ? utf8(text) : "";
}

void expectOnlyAdministratorsRead(const fs::path& path) {
    const std::string rights = rightsOf(path);
    EXPECT_FALSE(rights.empty());
    for (const char* const everybody : {";WD)", ";BU)", ";AU)"})
        EXPECT_EQ(rights.find(everybody), std::string::npos) << path << ' ' << rights;
}

void configure(DWORD start, const wchar_t* account) {
    EXPECT_TRUE(::ChangeServiceConfigW(openInstalledService().get(), SERVICE_NO_CHANGE, start, SERVICE_NO_CHANGE,
                                       nullptr, nullptr, nullptr, nullptr, account, nullptr, nullptr));
}

void describe(std::wstring text) {
    SERVICE_DESCRIPTIONW description{text.data()};
    EXPECT_TRUE(::ChangeServiceConfig2W(openInstalledService().get(), SERVICE_CONFIG_DESCRIPTION, &description));
}

void createForeignService() {
    const ServiceHandle service(::CreateServiceW(openManager().get(), L"quorkeri_service.exe", L"Another's",
                                                 SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                                 SERVICE_ERROR_NORMAL, fromText(kForeign).c_str(), nullptr, nullptr,
                                                 nullptr, nullptr, nullptr));
    EXPECT_TRUE(service);
}

void deleteService() {
    EXPECT_TRUE(::DeleteService(openInstalledService().get()));
}

class Installing : public PackagesTest {};

// Neither does it need the Keri software.
TEST_F(Installing, StartsTheServiceWithoutItsCompanionOnlyWhenToldTo) {
    unregisterKeri({});
    expectSucceeded(installHere("old"), {"the service is not started, because '" + utf8(bin() / kCompanionName) +
                                         "' is missing; copy it there, then type: net start quorkeri_service.exe"});
    EXPECT_EQ(serviceState(), "stopped");
    putCompanion();
    startService();
    awaitCompanion();
    expectSucceeded(install("old", "REINSTALL=ALL START=0"), {"START=0: the service is not started"});
    EXPECT_EQ(serviceState(), "stopped");
    fs::remove(bin() / kCompanionName);
    expectSucceeded(install("old", "REINSTALL=ALL START=1"));
    EXPECT_EQ(serviceState(), "running");
    expectSucceeded(remove("old"));
    Files companions = kCompanionFiles;
    companions.erase("bin/quorkeri_wrapper.exe");
    expectLeft(companions + kLog);
}

TEST_F(Installing, MakesTheDefaultDirectoryForAdministratorsAlone) {
    const fs::path directory = drive() / "QuorkeriService";
    ASSERT_FALSE(fs::exists(directory));
    expectSucceeded(install("old"), {"made '" + utf8(directory) + "', where only administrators and SYSTEM may write",
                                     "only administrators and SYSTEM may read the dumps"});
    EXPECT_EQ(setup::reasonDirectoryIsOpen(directory.wstring(), L""), std::nullopt);
    expectOnlyAdministratorsRead(directory / "work" / "dumps");
    EXPECT_TRUE(isWine() || rightsOf(directory).starts_with("O:BAD:P")) << rightsOf(directory);
    EXPECT_EQ(facts()["service program"], utf8(directory / "bin" / kServiceName));
    expectSucceeded(remove("old", "PURGE=1"));
    EXPECT_FALSE(fs::exists(directory));
}

TEST_F(Installing, ClosesDumpsThatWereThere) {
    const fs::path dumps = installation() / "work" / "dumps";
    makeDirectory(dumps);
    writeFile(dumps / "old.dmp", "memory");
    expectSucceeded(installHere("old"));
    expectOnlyAdministratorsRead(dumps);
    expectOnlyAdministratorsRead(dumps / "old.dmp");
}

TEST_F(Installing, SetsTheServiceUpForAnAdministrator) {
    // Wine's service manager may refuse both, and the log says that.
    const std::string recovery = "recovery actions: \"" + utf8(bin() / "quorkeri_health.exe") + "\" --recover";
    expectSucceeded(installHere("old", "DELAYEDSTART=1 WERDUMPS=1"),
                    {isWine() ? "recovery actions" : recovery + " after a minute, twice",
                     isWine() ? "delayed" : "the service starts delayed"});
    EXPECT_EQ(facts()["service description"], "Keeps the companion program of the Keri software running.");
    const std::string ours = utf8(installation() / "work" / "dumps");
    for (const std::string& value :
         {ours, std::string("DumpType    REG_DWORD    0x2"), std::string("REG_DWORD    0x5")})
        EXPECT_EQ(countInErrorReporting(value), 2U) << value; // for the service and the companion
    expectSucceeded(install("old", "WERDUMPS=0"));
    EXPECT_EQ(countInErrorReporting(ours), 0U);
    // Another's settings stay, and a removal takes back what is ours.
    const std::string service = '"' + kErrorReporting + "\\quorkeri_service.exe\"";
    run("reg add " + service + " /v DumpFolder /d C:\\Elsewhere /f /reg:64", base());
    expectSucceeded(install("old", "WERDUMPS=1"), {"has settings for 'quorkeri_service.exe' already; they stay"});
    EXPECT_EQ(countInErrorReporting(ours), 1U);
    expectSucceeded(remove("old"));
    EXPECT_EQ(countInErrorReporting(ours), 0U);
    EXPECT_EQ(countInErrorReporting("C:\\Elsewhere"), 1U);
    run("reg delete " + service + " /f /reg:64", base());
}

TEST_F(Installing, LetsTheManagerRecoverAKilledService) {
    if (isWine()) GTEST_SKIP() << "Wine does not store recovery actions";
    begin(Before::Running);
    const DWORD killed = statusOf(openInstalledService()).dwProcessId;
    endProcess(killed, installation());
    // The recovery command ends the companion that was left behind, and starts the service again after a minute.
    const auto isRecovered = [&] {
        const SERVICE_STATUS_PROCESS status = statusOf(openInstalledService());
        return status.dwCurrentState == SERVICE_RUNNING && status.dwProcessId != killed && programs().size() == 2;
    };
    EXPECT_TRUE(await(isRecovered, std::chrono::minutes(5)));
    awaitCompanion(2);
    expectWorking("old", /*isByPackage=*/true);
}

TEST_F(Installing, BringsTheCommandThatCollectsForSupport) {
    if (isWine()) GTEST_SKIP() << "Wine lacks most of the commands that it calls; the tree has a test for the rest";
    begin(Before::Running);
    const std::string found = said(utf8(bin() / "support-bundle.cmd"));
    EXPECT_NE(found.find("The support bundle is \"" + utf8(installation() / "work" / "tmp")), std::string::npos)
        << found;
    EXPECT_FALSE(files(installation() / "work" / "tmp").empty());
}

TEST_F(Installing, TakesOverWhatTheZipHasInstalled) {
    unzip("old");
    putCompanion();
    ASSERT_EQ(serviceCommand("service-install"), 0U);
    startService();
    awaitCompanion();
    expectSucceeded(installHere("new"));
    awaitCompanion(2);
    expectWorking("new", /*isByPackage=*/true);
}

TEST_F(Installing, LeavesAFileWithTheNameOfItsWriteProbe) {
    makeDirectory(bin());
    writeFile(bin() / "quorkeri_setup_0.tmp", "somebody's");
    expectSucceeded(installHere("old"));
    EXPECT_EQ(readFile(bin() / "quorkeri_setup_0.tmp"), "somebody's");
}

class Upgrading : public PackagesTest {};

// The registration may be kept, as on Windows, or made anew, as Wine does when it removes the earlier version.
TEST_F(Upgrading, KeepsWhatAnAdministratorHasSet) {
    for (const bool isKept : {true, false}) {
        SCOPED_TRACE(isKept);
        begin(Before::Running);
        configure(SERVICE_DEMAND_START, L"NT AUTHORITY\\LocalService");
        describe(L"Ours since 2019 | do not touch");
        if (isKept) expectSucceeded(remove("old", kWithinUpgrade));
        expectSucceeded(installHere("new"));
        Facts now = facts();
        EXPECT_EQ(now["service start"], "3");
        EXPECT_EQ(now["service account"], "NT AUTHORITY\\LocalService");
        EXPECT_EQ(now["service description"], "Ours since 2019 | do not touch");
        EXPECT_EQ(now["service state"], "running");
    }
}

TEST_F(Upgrading, DoesNotStartADisabledService) {
    begin(Before::Stopped);
    configure(SERVICE_DISABLED, L"LocalSystem");
    expectSucceeded(install("new"), {"the service is disabled, stays so and is not started"});
    EXPECT_EQ(serviceState() + facts()["service start"], "stopped4");
}

// What Windows tells the earlier version that it removes; Wine does not.
TEST_F(Upgrading, KeepsRegistrationAndLibrariesWhenTheOldVersionGoes) {
    begin(Before::Running);
    expectSucceeded(remove("old", kWithinUpgrade));
    EXPECT_EQ(serviceState(), "stopped");
    EXPECT_EQ(files(installation()), kCompanionFiles + kLog + copies());
    expectSucceeded(installHere("new"));
    awaitCompanion(2);
    expectWorking("new", /*isByPackage=*/true);
}

TEST_F(Upgrading, MovesToAnotherDirectory) {
    begin(Before::Running);
    const fs::path other = base() / "Elsewhere";
    expectSucceeded(install("new", "INSTALLDIR=" + utf8(other)));
    EXPECT_EQ(files(installation()), kCompanionFiles + kLog);
    EXPECT_EQ(facts()["service program"] + ' ' + serviceState(), utf8(other / "bin" / kServiceName) + " stopped")
        << "its companion is not there yet";
    EXPECT_TRUE(readFile(other / "bin" / kServiceName) == readFile(package("new") / "bin" / kServiceName));
    expectSucceeded(remove("new", "PURGE=1"));
    EXPECT_FALSE(fs::exists(other));
}

class Removing : public PackagesTest {};

TEST_F(Removing, LeavesTheCompanionAloneWhenItPurges) {
    begin(Before::Running);
    writeFile(installation() / "settings" / "testing.ini", "[general]\n");
    const fs::path deeper = installation() / "work" / "tmp" / "deeper";
    fs::create_directory(deeper);
    writeFile(deeper / "read-only.txt", "");
    ::SetFileAttributesW((deeper / "read-only.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    expectSucceeded(remove("old", "PURGE=1"));
    expectLeft(kCompanionFiles);
}

// A command of Linux in base(). Wine runs such a program and does not wait for it.
void runInLinux(const std::string& command) {
    const fs::path done = PackagesTest::base() / "linux.done";
    run("Z:\\bin\\sh -c \"" + command + "; : >linux.done\"", PackagesTest::base());
    EXPECT_TRUE(await([&] { return fs::exists(done); }));
    fs::remove(done);
}

TEST_F(Removing, DoesNotFollowALink) {
    begin(Before::Running);
    const fs::path outside = base() / "Outside";
    const fs::path tmp = installation() / "work" / "tmp";
    makeDirectory(outside);
    writeFile(outside / "precious.txt", "not the service's");
    if (isWine())
        runInLinux("ln -s ../../../Outside Quorkeri/work/tmp/link");
    else
        ASSERT_TRUE(::CreateSymbolicLinkW((tmp / "link").c_str(), outside.c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY));
    expectSucceeded(remove("old", "PURGE=1"), {isWine() ? "work\\tmp\\link: it leads out of the installation" : ""});
    EXPECT_EQ(readFile(outside / "precious.txt"), "not the service's");
    if (isWine()) runInLinux("rm Quorkeri/work/tmp/link");
}

TEST_F(Removing, LeavesAServiceThatSomebodyHasPutInItsPlace) {
    begin(Before::Stopped);
    deleteService();
    createForeignService();
    expectSucceeded(remove("old"), {std::string("the service runs '") + kForeign + "' and is left alone"});
    Facts now = facts();
    EXPECT_EQ(now["service program"], kForeign);
    EXPECT_EQ(now["product version"], "");
    EXPECT_EQ(files(installation()), kCompanionFiles + kLog);
}

TEST_F(Removing, GivesACompanionThatIgnoresTheStopFifteenSeconds) {
    begin(Before::Held);
    const ULONGLONG began = ::GetTickCount64();
    const Done done = remove("old");
    EXPECT_GE(::GetTickCount64() - began, 15'000U);
    expectSucceeded(done, {"the service waits for its companion", "ending '" + utf8(bin() / kCompanionName) + "'"});
    EXPECT_EQ(companionEvents("datagram"), 1U);
    expectLeft(kCompanionFiles + kLog);
}

// Whatever somebody has taken away by hand, installing and removing both lead to an end.
TEST_F(Installing, MendsAndRemovesWhatIsHalfRemoved) {
    const std::vector<std::pair<const char*, std::function<void()>>> damages = {
        {"files", [] { fs::remove_all(bin()); }},
        {"service", [] { deleteService(); }},
        {"directory", [] { fs::remove_all(installation()); }}};
    for (const auto& [missing, damage] : damages) {
        for (const std::string action : {"repair", "upgrade", "removal"}) {
            SCOPED_TRACE(missing + (' ' + action));
            begin(Before::Stopped);
            damage();
            if (action == "removal") {
                expectSucceeded(remove("old", "PURGE=1"));
                expectLeft(std::string(missing) == "service" ? kCompanionFiles : Files{});
                continue;
            }
            putCompanion();
            const bool isThere = companionEvents("ready") > 0;
            expectSucceeded(action == "repair" ? install("old", "REINSTALL=ALL") : install("new"));
            awaitCompanion(isThere ? 2 : 1);
            expectWorking(action == "repair" ? "old" : "new", /*isByPackage=*/true);
        }
    }
}

// What cannot be installed leaves a sentence in the log and the machine as it was.
class Refusing : public PackagesTest {
protected:
    static Files rootOf(const fs::path& directory) {
        Files names;
        for (const fs::directory_entry& entry : fs::directory_iterator(directory))
            if (entry.path().filename() != "msiexec.log" && entry.path().filename() != "Config.Msi")
                names.insert(utf8(entry.path().filename()));
        return names;
    }
};

TEST_F(Refusing, ADirectoryThatMakesNoSense) {
    const std::string here = utf8(base());
    const std::string letter = here.substr(0, 2);
    const std::string plain = here + "\\plain.txt";
    writeFile(plain, "a file");
    std::string unused = "Y:";
    while (::GetLogicalDrives() >> (unused[0] - 'A') & 1U) --unused[0];
    const std::string example = "Choose a directory such as C:\\QuorkeriService. Nothing was changed.";
    const std::string isFile = "'" + plain + "' is a file, and the installation needs a directory there";
    const std::pair<std::string, std::string> rows[] = {
        {"Quorkeri", "It has to be a full path on a local drive: a letter, a colon, a backslash, a name. " + example},
        {"\\\\server\\share\\Quorkeri", "It has to be a full path on a local drive"},
        {letter + "Quorkeri", "It has to be a full path on a local drive"},
        {letter + "\\", "The root of a drive cannot be the installation's directory. " + example},
        {"\"" + here + "\\Quor keri\"", "A blank in it is not safe: the service's path is registered without quotes"},
        {here + "\\Quor'keri", "It has a character that a directory's path must not have"},
        {here + "\\Quorkeri/x", "It has a character that a directory's path must not have"},
        {here + "\\Quorkeri\\..\\x", "No part of it may be empty or end in a dot"},
        {here + "\\Quorkeri\\\\x", "No part of it may be empty or end in a dot"},
        {letter + "\\" + std::string(200, 'x'), "It is too long for the files below it"},
        {unused + "\\Quorkeri", "There is no such drive"},
        {plain + "\\Quorkeri", isFile},
        {plain, isFile}};
    const Files root = rootOf(drive());
    const Files before = rootOf(base());
    for (const auto& [directory, sentence] : rows) {
        expectRefused([&] { return install("old", "INSTALLDIR=" + directory); }, sentence);
        EXPECT_EQ(rootOf(drive()), root) << directory;
        EXPECT_EQ(rootOf(base()), before) << directory;
    }
    // And it is found there with what an administrator has.
    const std::string found = said("type " + here + "\\msiexec.log | find \"Nothing was changed\"");
    EXPECT_NE(found.find(isFile), std::string::npos) << found;
}

TEST_F(Refusing, AValueThatMakesNoSense) {
    const auto refuse = [](const std::string& name, const std::string& value, const std::string& wanted) {
        expectRefused([&] { return install("old", name + '=' + value); },
                      name + " is '" + value + "'. It has to be " + wanted + '.');
    };
    for (const char* const value : {"x", "-1", "601", "1.5"})
        refuse("STOPTIMEOUT", value, "a number of seconds from 0 to 600");
    for (const char* const name : {"ALLOWOPENDIR", "DELAYEDSTART", "START", "WERDUMPS"})
        for (const char* const value : {"2", "yes"}) refuse(name, value, "0 or 1");
}

TEST_F(Refusing, ADirectoryThatCannotBeWritten) {
    // Under Wine the drive Z is the machine's own file system, where one directory takes no files from anybody.
    fs::path closed = "Z:\\proc";
    if (!isWine()) {
        closed = base() / "Closed";
        makeDirectory(closed);
        EXPECT_EQ(run("icacls " + utf8(closed) + " /deny *S-1-1-0:(WD,AD)", base()), 0U);
    }
    expectRefused([&] { return install("old", "INSTALLDIR=" + utf8(closed / "Quorkeri")); },
                  "No file can be made in '" + utf8(closed) + "'");
}

TEST_F(Refusing, TheKeriSoftwaresOwnDirectory) {
    registerKeri({}, utf8(bin()));
    expectRefused([] { return installHere("old"); }, "'" + utf8(bin()) + "' is where the Keri software is installed.");
}

TEST_F(Refusing, AServiceOfThatNameThatIsSomebodyElses) {
    createForeignService();
    expectRefused([] { return installHere("old"); }, std::string("is registered already and runs '") + kForeign + "'");
}

TEST_F(Refusing, AServiceThatWaitsForItsDeletion) {
    begin(Before::Running);
    deleteService();
    expectRefused([] { return install("new"); }, "is marked for deletion and goes away when every program");
    control(SERVICE_CONTROL_STOP);
}

TEST_F(Refusing, AHeldFile) {
    begin(Before::Running);
    const fs::path held = bin() / "held.dll";
    const NS_CORE::ScopedFileHandle holder(
        ::CreateFileW(held.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    ASSERT_TRUE(holder);
    const Files running = programs();
    const std::function<Done()> actions[] = {[] { return install("old", "REINSTALL=ALL"); },
                                             [] { return remove("old"); }, [] { return install("new"); }};
    for (const auto& action : actions) {
        expectRefused(action, "'" + utf8(held) + "' is held open by another program");
        EXPECT_EQ(programs(), running);
    }
}

// Found only after the service has stopped, which has to run again then.
TEST_F(Refusing, ALibraryInUseByAnotherProgram) {
    begin(Before::Running);
    const fs::path other = bin() / "other.exe";
    writeFile(other, readFile(bin() / kCompanionName));
    setCompanion("mute");
    const Process user(other, {}, base() / "other.txt");
    awaitCompanion(2);
    setCompanion("");
    expectRefused([] { return install("old", "REINSTALL=ALL"); },
                  "'" + utf8(other) + "' is held open by another program");
    awaitCompanion(3);
    EXPECT_EQ(serviceState(), "running");
}

// A directory that others can write to: LocalSystem would run what they put there.
class OpenDirectory : public Refusing {
protected:
    struct Opening {
        std::string open;
        std::string close;
    };
    // What an administrator may do to the path of that name below base(). Wine shows a file's owner and rights as far
    // as Linux has them.
    static void apply(std::string command, const std::string& path) {
        command.replace(command.find('%'), 1, isWine() ? path : utf8(fs::path(path).make_preferred()));
        if (isWine())
            runInLinux(command);
        else
            EXPECT_EQ(run("icacls " + command + " /Q", base()), 0U) << command;
    }
    static std::vector<Opening> openings() {
        if (isWine()) return {{"chmod 777 %", "chmod 755 %"}, {"chown nobody %", "chown $(id -u) %"}};
        return {{"% /grant *S-1-1-0:M", "% /remove:g *S-1-1-0"},
                {"% /setowner *S-1-5-32-545", "% /setowner *S-1-5-32-544"}};
    }
};

TEST_F(OpenDirectory, IsRefusedUntilItIsClosed) {
    makeDirectory(bin() / "settings");
    writeFile(bin() / kCompanionName, "");
    for (const char* const name : {"Quorkeri", "Quorkeri/bin", "Quorkeri/bin/quorkeri_wrapper.exe"}) {
        for (const Opening& opening : openings()) {
            apply(opening.open, name);
            expectRefused([] { return installHere("old"); },
                          "'" + utf8((base() / name).make_preferred()) + "' belongs to '");
            apply(opening.close, name);
        }
    }
    fs::remove_all(bin());
    putCompanion();
    expectSucceeded(installHere("old"));
    awaitCompanion();
    // And later: neither repaired nor upgraded, and the service runs on.
    apply(openings()[0].open, "Quorkeri");
    const std::string here = utf8(installation());
    for (const char* const words : {"old REINSTALL=ALL", "new"})
        expectRefused([&] { return install(std::string(words, 3), words + 3); },
                      "(icacls " + here + " /setowner *S-1-5-32-544 /T & icacls " + here + " /reset /T & ");
    EXPECT_EQ(serviceState(), "running");
    expectSucceeded(remove("old"));
}

TEST_F(OpenDirectory, MayBeAboveIt) {
    makeDirectory(base() / "Above");
    apply(openings()[0].open, "Above");
    expectRefused([] { return install("old", "INSTALLDIR=" + utf8(base() / "Above" / "Quorkeri")); },
                  "'" + utf8(base() / "Above") + "' belongs to '");
}

TEST_F(OpenDirectory, IsTakenWithAPropertyAndTheLogSaysSo) {
    putCompanion();
    apply(openings()[0].open, "Quorkeri");
    expectSucceeded(installHere("old", "ALLOWOPENDIR=1"), {"ALLOWOPENDIR=1: the service will run there, although '" +
                                                           utf8(installation()) + "' belongs to '"});
    EXPECT_EQ(serviceState(), "running");
}

} // namespace
} // namespace test
