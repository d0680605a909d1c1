#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/system/await.h"

// What the tests of the packages do as an administrator, and what they look at. Texts are UTF-8; failures throw.
namespace test {

// All that an installation can change, by name: service, product, files.
using Facts = std::map<std::string, std::string>;

// Runs a command line and waits. Returns the exit code.
unsigned long run(const std::string& commandLine, const std::filesystem::path& directory);

struct Done {
    unsigned long code = 0;
    std::string log; // of Windows Installer, without carriage returns
};

// One machine, which begins without the product and with the Keri software, and is left without both. Everything that a
// test makes lies below one directory of this name, in the root of the system's drive: a service of LocalSystem is not
// installed below a directory that others may change.
class PackagesTest : public testing::Test {
public:
    // The states that the service can have before an administrator acts.
    enum class Before { Running, Stopped, Held };

    PackagesTest();
    ~PackagesTest() override;

    static std::filesystem::path drive(); // "C:\"
    static std::filesystem::path base();
    static std::filesystem::path installation() { return base() / "Quorkeri"; }
    static std::filesystem::path bin() { return installation() / "bin"; }

    // Both versions of the product: "old" and "new" by name, and the numbers.
    static std::filesystem::path package(const std::string& name);
    static std::string version(const std::string& name);

    // msiexec without a window; waits while another installation runs.
    static Done msiexec(const std::string& words);
    static Done install(const std::string& name, const std::string& words = "");
    static Done installHere(const std::string& name, const std::string& words = "");
    static Done remove(const std::string& name, const std::string& words = "");

    // The files of the zip, put over what is there.
    static void unzip(const std::string& name);
    static unsigned long serviceCommand(const std::string& word);

    // A new directory where only administrators and SYSTEM may write, with those above it.
    static void makeDirectory(const std::filesystem::path& directory);
    static void putCompanion(const std::string& settings = "");
    static void setCompanion(const std::string& settings);
    static size_t companionEvents(const std::string& event);
    static void awaitCompanion(size_t count = 1);

    static Facts facts();
    static std::set<std::string> files(const std::filesystem::path& directory);
    // Name and process id of what runs from here.
    static std::set<std::string> programs();
    static std::string serviceState();
    static void awaitServiceState(const std::string& state);
    static void startService();
    static void control(unsigned long code);
    // Asks the service to stop and waits until it has; ends a companion that ignores it.
    static void stopService(bool isHeld = false);

    // By package, into installation(), with a companion that runs or has run.
    static void begin(Before before, const std::string& name = "old");

    // The product by package or by zip: files, program, registration and running service. `more` are files beyond the
    // product's, the companion's and the service's own.
    static void expectWorking(const std::string& name, bool isByPackage, const std::set<std::string>& more = {});
    // With these sentences in the log.
    static void expectSucceeded(const Done& done, const std::vector<std::string>& sentences = {});
    // The sentence stands in the log, and nothing has changed.
    template <class Action>
    static void expectRefused(Action action, const std::string& sentence) {
        const Facts before = facts();
        const Done done = action();
        EXPECT_EQ(done.code, 1603U) << sentence;
        expectSays(done, sentence);
        EXPECT_EQ(facts(), before) << sentence;
    }
    static void expectSays(const Done& done, const std::string& sentence);
    // Nothing but files.
    static void expectLeft(const std::set<std::string>& files);

    static const std::set<std::string> kCompanionFiles;
    static const std::set<std::string> kLog;
    static std::set<std::string> copies();

private:
    // Removes the product, the service and installation().
    static void clear();
};

std::set<std::string> operator+(std::set<std::string> one, const std::set<std::string>& other);

} // namespace test
