#include "tests/installation/packages_win32.h"

#include <windows.h>

#include <stdexcept>

#include "core/memory/core_scopedhandle_win32.h"
#include "packaging/setup/setup_rights.h"
#include "tests/support/temp_dir.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/processes_win32.h"
#include "tests/system/service_manager_win32.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using namespace NS_CORE;

constexpr const wchar_t* kUninstall = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
constexpr const wchar_t* kProduct = L"Software\\Quorvane\\Keri Wrapper";

// The installer writes a 32-bit package's entries where this 32-bit program sees them without asking for a view.
std::string registryText(const std::wstring& key, const wchar_t* name) {
    wchar_t text[1024] = {};
    DWORD size = sizeof text - sizeof *text;
    const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &size);
    return result == ERROR_SUCCESS ? utf8(text) : "";
}

// The product's entry in the list of programs, by its product code; empty when there is none.
std::wstring productCode() {
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kUninstall, 0, KEY_READ, &opened) != ERROR_SUCCESS) return {};
    const ScopedRegistryKey programs(opened);
    wchar_t name[256];
    DWORD length = 256;
    for (DWORD i = 0; ::RegEnumKeyExW(opened, i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = 256) {
        if (registryText(std::wstring(kUninstall) + L'\\' + name, L"DisplayName") == "Quorvane Keri Wrapper")
            return name;
    }
    return {};
}

// Windows writes the log as UTF-16, Wine in either form.
std::string logText(const fs::path& file) {
    std::string bytes = fs::exists(file) ? readFile(file) : "";
    if (bytes.size() > 1 && (bytes[1] == '\0' || bytes.starts_with("\xFF\xFE"))) {
        std::wstring wide;
        for (size_t at = bytes[1] == '\0' ? 0 : 2; at + 1 < bytes.size(); at += 2)
            wide += static_cast<wchar_t>(static_cast<unsigned char>(bytes[at]) |
                                         static_cast<unsigned char>(bytes[at + 1]) << 8);
        bytes = utf8(wide);
    }
    std::erase(bytes, '\r');
    return bytes;
}

std::string lines(const std::set<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += word + '\n';
    return text;
}

} // namespace

const std::set<std::string> PackagesTest::kCompanionFiles = {"bin/quorkeri_wrapper.exe", "bin/quorkeri_wrapper.records",
                                                             "bin/quorkeri_wrapper.settings"};
const std::set<std::string> PackagesTest::kLog = {"work/logs/service.log"};

std::set<std::string> operator+(std::set<std::string> one, const std::set<std::string>& other) {
    one.insert(other.begin(), other.end());
    return one;
}

unsigned long run(const std::string& commandLine, const fs::path& directory) {
    const ScopedKernelHandle process = startProgram(fromText(commandLine).wstring(), {.directory = directory.c_str()});
    return process ? exitCodeOf(process) : 0;
}

fs::path PackagesTest::drive() {
    wchar_t directory[MAX_PATH] = {};
    ::GetWindowsDirectoryW(directory, MAX_PATH);
    return fs::path(directory).root_path();
}

fs::path PackagesTest::base() {
    return drive() / "QuorkeriSelftest";
}

fs::path PackagesTest::package(const std::string& name) {
    return builtFile(PACKAGES) / name;
}

std::string PackagesTest::version(const std::string& name) {
    std::string text = readFile(package(name + ".txt"));
    return text.substr(0, text.find_first_of("\r\n"));
}

PackagesTest::PackagesTest() {
    makeDirectory(base());
    clear();
    fs::remove_all(base());
    makeDirectory(base() / "Keri");
    for (const std::string& name : kLibraries) writeFile(base() / "Keri" / name, name);
    registerKeri({}, utf8(base() / "Keri"));
}

PackagesTest::~PackagesTest() {
    try {
        clear();
        fs::remove_all(base());
        EXPECT_EQ(facts(), Facts{});
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
    unregisterKeri({});
}

void PackagesTest::clear() {
    if (const std::wstring code = productCode(); !code.empty())
        expectSucceeded(msiexec("/x " + utf8(code) + " PURGE=1 STOPTIMEOUT=0"));
    removeLeftService();
    endProcessesBelow(base());
    fs::remove_all(installation());
}

Done PackagesTest::msiexec(const std::string& words) {
    const fs::path log = base() / "msiexec.log";
    Done done;
    const auto isDone = [&] {
        fs::remove(log);
        done.code = run("msiexec " + words + " /qn /l*v \"" + utf8(log) + '"', base());
        return done.code != ERROR_INSTALL_ALREADY_RUNNING;
    };
    static_cast<void>(await(isDone, std::chrono::minutes(5)));
    done.log = logText(log);
    return done;
}

Done PackagesTest::install(const std::string& name, const std::string& words) {
    return msiexec("/i \"" + utf8(package(name + ".msi").make_preferred()) + "\" " + words);
}

Done PackagesTest::installHere(const std::string& name, const std::string& words) {
    return install(name, "INSTALLDIR=" + utf8(installation()) + ' ' + words);
}

Done PackagesTest::remove(const std::string& name, const std::string& words) {
    return msiexec("/x \"" + utf8(package(name + ".msi").make_preferred()) + "\" " + words);
}

void PackagesTest::unzip(const std::string& name) {
    makeDirectory(installation());
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(package(name))) {
        const fs::path target = installation() / fs::relative(entry.path(), package(name));
        if (entry.is_directory())
            fs::create_directories(target);
        else
            writeFile(target, readFile(entry.path()));
    }
}

unsigned long PackagesTest::serviceCommand(const std::string& word) {
    return run('"' + utf8(bin() / kServiceName) + "\" " + word, drive());
}

void PackagesTest::makeDirectory(const fs::path& directory) {
    if (fs::exists(directory)) return;
    const std::wstring failed = setup::makeClosedDirectory(directory.wstring());
    if (!failed.empty()) throw std::runtime_error(utf8(directory) + ": " + utf8(failed));
}

void PackagesTest::putCompanion(const std::string& settings) {
    makeDirectory(bin());
    writeFile(bin() / kCompanionName, readFile(builtFile(COMPANION_PROGRAM)));
    setCompanion(settings);
}

void PackagesTest::setCompanion(const std::string& settings) {
    writeFile(bin() / "quorkeri_wrapper.settings", settings);
}

size_t PackagesTest::companionEvents(const std::string& event) {
    return recordsIn(bin(), event).size();
}

void PackagesTest::awaitCompanion(size_t count) {
    if (!await([&] { return companionEvents("ready") >= count; }))
        throw std::runtime_error("The companion was not started " + std::to_string(count) + " times");
}

Facts PackagesTest::facts() {
    Facts found;
    if (const ServiceHandle service = openService()) {
        const ServiceConfiguration config(service);
        found["service program"] = utf8(config->lpBinaryPathName);
        found["service name"] = utf8(config->lpDisplayName);
        found["service kind"] = std::to_string(config->dwServiceType) + ' ' + std::to_string(config->dwErrorControl);
        found["service start"] = std::to_string(config->dwStartType);
        found["service account"] = utf8(config->lpServiceStartName);
        found["service state"] = serviceState();
        alignas(SERVICE_DESCRIPTIONW) BYTE buffer[8192];
        DWORD needed = 0;
        auto* const description = reinterpret_cast<SERVICE_DESCRIPTIONW*>(buffer);
        if (::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, buffer, sizeof buffer, &needed) &&
            description->lpDescription)
            found["service description"] = utf8(description->lpDescription);
    }
    if (const std::wstring code = productCode(); !code.empty()) {
        const std::wstring key = std::wstring(kUninstall) + L'\\' + code;
        found["product version"] = registryText(key, L"DisplayVersion");
        found["product directory"] = registryText(key, L"InstallLocation");
    }
    if (const std::string directory = registryText(kProduct, L"InstallDir"); !directory.empty())
        found["noted directory"] = directory;
    if (const std::string text = lines(files(installation())); !text.empty()) found["files"] = text;
    return found;
}

// Every file, and every directory that has none.
std::set<std::string> PackagesTest::files(const fs::path& directory) {
    std::set<std::string> found;
    if (!fs::exists(directory)) return found;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        std::string name = utf8(fs::relative(entry.path(), directory).generic_wstring());
        if (!entry.is_directory())
            found.insert(name);
        else if (fs::is_empty(entry.path()))
            found.insert(name + '/');
    }
    return found;
}

std::set<std::string> PackagesTest::programs() {
    std::set<std::string> found;
    forEachProcessBelow(installation(), [&](const PROCESSENTRY32W& entry) {
        found.insert(utf8(entry.szExeFile) + ' ' + std::to_string(entry.th32ProcessID));
    });
    return found;
}

std::string PackagesTest::serviceState() {
    const ServiceHandle service = openService();
    if (!service) return "none";
    const std::map<DWORD, std::string> names = {
        {SERVICE_RUNNING, "running"}, {SERVICE_STOPPED, "stopped"}, {SERVICE_STOP_PENDING, "stopping"}};
    const auto name = names.find(statusOf(service).dwCurrentState);
    return name == names.end() ? "starting" : name->second;
}

void PackagesTest::awaitServiceState(const std::string& state) {
    if (!await([&] { return serviceState() == state; }))
        throw std::runtime_error("The service is " + serviceState() + ", not " + state);
}

void PackagesTest::startService() {
    if (!::StartServiceW(openInstalledService().get(), 0, nullptr)) failWithLastError("StartServiceW");
    awaitServiceState("running");
}

void PackagesTest::control(unsigned long code) {
    SERVICE_STATUS status{};
    if (!::ControlService(openInstalledService().get(), code, &status)) failWithLastError("ControlService");
}

void PackagesTest::stopService(bool isHeld) {
    const size_t datagrams = companionEvents("datagram");
    control(SERVICE_CONTROL_STOP);
    if (isHeld) {
        if (!await([&] { return companionEvents("datagram") > datagrams; }))
            throw std::runtime_error("The stop datagram did not arrive");
        EXPECT_EQ(serviceState(), "stopping");
        forEachProcessBelow(installation(), [](const PROCESSENTRY32W& entry) {
            if (utf8(entry.szExeFile) == kCompanionName) endProcess(entry.th32ProcessID, installation());
        });
    }
    awaitServiceState("stopped");
    if (!await([] { return programs().empty(); })) throw std::runtime_error("A process of the service stays");
}

void PackagesTest::begin(Before before, const std::string& name) {
    clear();
    putCompanion(before == Before::Held ? "ignore all" : "");
    expectSucceeded(installHere(name));
    awaitCompanion();
    if (before == Before::Stopped) stopService();
}

std::set<std::string> PackagesTest::copies() {
    std::set<std::string> names;
    for (const std::string& name : kLibraries) names.insert("bin/" + name);
    return names;
}

void PackagesTest::expectWorking(const std::string& name, bool isByPackage, const std::set<std::string>& more) {
    std::set<std::string> wanted = files(package(name)) + kCompanionFiles + kLog + copies() + more;
    // A directory that is empty in the package may have files now.
    std::erase_if(wanted, [&](const std::string& file) {
        const auto next = wanted.upper_bound(file);
        return file.ends_with('/') && next != wanted.end() && next->starts_with(file);
    });
    // The libraries come a moment after the start.
    EXPECT_TRUE(await([&] { return files(installation()).size() >= wanted.size(); }));
    Facts expected = {{"service program", utf8(bin() / kServiceName)},
                      {"service name", "Quorvane Keri Wrapper"},
                      {"service kind", "16 1"},
                      {"service start", "2"},
                      {"service account", "LocalSystem"},
                      {"service state", "running"},
                      {"files", lines(wanted)}};
    if (isByPackage) {
        const std::string directory = utf8(installation()) + '\\';
        expected.insert(
            {{"product version", version(name)}, {"product directory", directory}, {"noted directory", directory}});
    }
    Facts now = facts();
    now.erase("service description"); // a service that was there keeps its own
    EXPECT_EQ(now, expected);
    EXPECT_TRUE(readFile(bin() / kServiceName) == readFile(package(name) / "bin" / kServiceName));
    EXPECT_EQ(programs().size(), 2U); // the service and the companion
}

void PackagesTest::expectSucceeded(const Done& done, const std::vector<std::string>& sentences) {
    EXPECT_EQ(done.code, 0U) << done.log.substr(done.log.size() - std::min<size_t>(done.log.size(), 3000));
    for (const std::string& sentence : sentences) expectSays(done, sentence);
}

void PackagesTest::expectSays(const Done& done, const std::string& sentence) {
    EXPECT_NE(done.log.find(sentence), std::string::npos)
        << sentence << "\nThe log's end:\n"
        << done.log.substr(done.log.size() - std::min<size_t>(done.log.size(), 3000));
}

void PackagesTest::expectLeft(const std::set<std::string>& left) {
    EXPECT_EQ(programs(), std::set<std::string>{});
    Facts expected;
    if (!left.empty()) expected["files"] = lines(left);
    EXPECT_EQ(facts(), expected);
}

} // namespace test
