#include "service/main.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/check/core_assert.h"
#include "core/crash/core_crashguard.h"
#include "core/identity/core_paths.h"
#include "core/identity/core_product.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "service/names.h"
#include "service/supervision.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/temp_dir.h"
#include "tests/support/udp_receiver.h"
#include "utl/utl_service.h"

namespace service {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

int runWith(const std::vector<std::string>& words) {
    ArgumentVector arguments(test::thisProgram(), words);
    return runProcess(arguments);
}

// The program as its entry runs it, and then what is left of it: 100 when all is as it should be.
const test::ChildProgram g_applicationAfter("application_after", [](const std::vector<std::string>& words) {
    if (!NS_CORE::productIdentifier().empty()) return 1;
    if (runWith(words) != 1) return 2;
    if (NS_CORE::productIdentifier() != "ravelin") return 3;
    if (NS_CORE::dotPath(NS_CORE::PathKind::Logs) != "./work/logs") return 4;
    if (NS_CORE::dotPath(NS_CORE::PathKind::Dumps) != "./work/dumps") return 5;
    const test::HookRecorder hook;
    NS_UTL::Service::signalHandler(2);
    if (hook.failures().empty() || hook.single().line != 119) return 6;
    MLOG(Crit, "After", "to nobody's file");
    return 100;
});

// A check that fails before the program has moved to its installation, whose settings say where to report it.
const test::ChildProgram g_fails("application_fails", [](const std::vector<std::string>& words) {
    static_cast<void>(CHECKF_AT("early", 7, words.size() > 100, ""));
    return runWith(words);
});

[[gnu::noinline]] void writeOverStack() {
    volatile char stack[64 * 1024];
    for (volatile char& byte : stack) byte = 'x';
}

// The first thread faults while it makes the host: this program's directory is not "bin". The guard gives up the
// thread's stack; then the service manager's other threads call the host, as they may until the process has ended.
const test::ChildProgram g_crashes("application_crashes", [](const std::vector<std::string>& arguments) {
    test::leaveMemoryBehind();
    fs::current_path(test::fromText(arguments.at(0)));
    NS_CORE::Assert::installFailureHandler([](const char*, std::string_view, int32_t, int32_t, const std::string&) {
        test::crash("null");
        return false;
    });
    if (runWith({}) != NS_CORE::kCrashResult) return 1;
    writeOverStack();
    std::thread([] { NS_UTL::Service::controlHandler(NS_UTL::ServiceControl::Stop); }).join();
    return 100;
});

// An installation around a copy of this program.
class MainTest : public testing::Test {
protected:
    MainTest() {
        for (const char* directory : {"bin", "settings", "work/logs"}) fs::create_directories(m_dir.path() / directory);
        fs::copy_file(test::fromText(test::thisProgram()), m_dir.path() / "bin" / "program.exe");
    }

    int runChild(const std::string& name, const Lines& arguments, const char* file = "bin/program.exe") const {
        return test::runAndWait(test::childCommandLineOf(m_dir.file(file), name, arguments));
    }

    // The log's records, without their stamps.
    Lines logLines() const {
        std::istringstream text(test::readFile(m_dir.path() / "work/logs/service.log"));
        Lines lines;
        for (std::string line; std::getline(text, line);) {
            constexpr size_t kStampLength = sizeof("2019-11-20 20 14:49:57 ") - 1;
            if (line.size() > kStampLength) lines.push_back(line.substr(kStampLength));
        }
        return lines;
    }

    test::TempDir m_dir;
};

TEST_F(MainTest, LeavesIdentityAndPathsSetTheHostClearedAndTheLogClosed) {
    EXPECT_EQ(runChild("application_after", {}), 100);
    EXPECT_EQ(logLines().size(), 1U) << "nothing is logged to the file after the globals are gone";
}

TEST_F(MainTest, SendsAtItsEndWhatFailedBeforeTheSettingsWereRead) {
    test::UdpReceiver collector;
    test::writeFile(m_dir.path() / "settings" / "testing.ini", "[general]\nsend_address 127.0.0.1\nsend_port " +
                                                                   std::to_string(collector.port()) +
                                                                   "\n[assert]\nsend enable\n");
    fs::rename(m_dir.path() / "bin" / "program.exe", m_dir.path() / "bin" / "a&b.exe");
    EXPECT_EQ(runChild("application_fails", {}, "bin/a&b.exe"), 1);
    const std::string bytes = collector.receive().bytes;
    EXPECT_NE(bytes.find("<file>early</file>"), std::string::npos);
    EXPECT_NE(bytes.find("<server>a&amp;b.exe</server>"), std::string::npos) << bytes;
}

TEST_F(MainTest, AFaultOfItsThreadLeavesTheHostToTheOthers) {
    fs::create_directories(m_dir.path() / "elsewhere");
    test::linkThisProgram(m_dir.path() / "elsewhere" / "program.exe");
    test::UdpReceiver companion(kStopPort);
    EXPECT_EQ(runChild("application_crashes", {test::utf8(m_dir.path())}, "elsewhere/program.exe"), 100);
    EXPECT_EQ(companion.receive().bytes.size(), Supervisor::kStopDatagramSize);
}

} // namespace
} // namespace service
