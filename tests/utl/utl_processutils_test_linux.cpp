#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "tests/utl/processutils_test.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Result = ProcessUtils::Result;

const test::ChildProgram g_killed("killed", [](const auto& arguments) {
    ::kill(::getpid(), std::stoi(arguments.at(0)));
    return 0;
});

// Writes to the file named first, a line each: what its descriptors are, whether it leads a session, whether it
// has a terminal, and its blocked and ignored signals.
const test::ChildProgram g_inheritance("inheritance", [](const auto& arguments) {
    // Looked at before anything is opened here; the descriptor of the listing itself is gone afterwards.
    std::vector<std::string> descriptors;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const fs::path target = fs::read_symlink(entry.path(), gone);
        if (target.string().find("/fd") == std::string::npos)
            descriptors.push_back(entry.path().filename().string() + ' ' + target.string());
    }
    std::ofstream report(arguments.at(0));
    std::sort(descriptors.begin(), descriptors.end());
    for (const std::string& descriptor : descriptors) report << descriptor << '\n';
    report << "writes " << (::write(STDOUT_FILENO, "x", 1) == 1) << '\n';
    report << "session " << (::getsid(0) == ::getpid()) << '\n';
    report << "terminal " << (::open("/dev/tty", O_RDWR) >= 0) << '\n';
    // Of the ignored ones, without the two that the C library keeps for itself and sets aside in every child.
    constexpr unsigned long kLibrarysOwn = 3UL << 31;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:")) report << "blocked " << std::stoul(line.substr(7), nullptr, 16) << '\n';
        if (line.starts_with("SigIgn:"))
            report << "ignored " << (std::stoul(line.substr(7), nullptr, 16) & ~kLibrarysOwn) << '\n';
    }
    return 0;
});

bool hasChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

TEST(ProcessUtilsLinux, AKilledProgramEndsWith128AndTheSignal) {
    for (const int signal : {SIGKILL, SIGTERM, SIGABRT}) {
        EXPECT_EQ(started(test::childCommandLine("killed", {std::to_string(signal)})),
                  Started(Result::Finished, 128 + signal));
    }
    EXPECT_FALSE(hasChildren());
}

TEST(ProcessUtilsLinux, TheChildInheritsNothingAndIsDetached) {
    const test::TempDir dir;
    // Descriptors that would pass to a child, one of them beyond the usual.
    const int low = ::open("/etc/passwd", O_RDONLY);
    const int high = ::fcntl(low, F_DUPFD, 700);
    ASSERT_GE(low, 0);
    ASSERT_EQ(high, 700);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::sigaddset(&blocked, SIGINT);
    sigset_t before;
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);

    EXPECT_EQ(started(test::childCommandLine("inheritance", {dir.file("report")})), kFinished);
    EXPECT_EQ(linesOf(dir.file("report")), (Lines{"0 /dev/null", "1 /dev/null", "2 /dev/null", "writes 1", "session 1",
                                                  "terminal 0", "blocked 0", "ignored 0"}));
    ::close(low);
    ::close(high);
    // Cases may share a process.
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (const int signum : {SIGPIPE, SIGHUP}) std::signal(signum, SIG_DFL);
}

TEST(ProcessUtilsLinux, AFileThatIsNoProgramSaysWhy) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "text", "this is not a program\n");
    fs::permissions(dir.path() / "text", fs::perms::owner_all);
    test::writeFile(dir.path() / "locked", "#!/bin/true\n");
    fs::permissions(dir.path() / "locked", fs::perms::owner_read);
    const test::LogRecorder log;
    for (const char* const name : {"text", "locked", "text/below"}) EXPECT_EQ(started(dir.file(name)), kStartFailed);
    const std::string begin = "WARN NS_UTL::ProcessUtils::start - failed to start '";
    EXPECT_EQ(log.lines(), (Lines{begin + dir.file("text") + "': Exec format error",
                                  begin + dir.file("locked") + "': Permission denied",
                                  begin + dir.file("text/below") + "': Not a directory"}));
    EXPECT_FALSE(hasChildren());
}

TEST(ProcessUtilsLinux, WithoutDescriptorsForTheStandardStreamsNothingStarts) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit tooFew{STDERR_FILENO, before.rlim_max};
    const test::LogRecorder log;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tooFew), 0);
    EXPECT_EQ(started("/bin/true"), kStartFailed);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(log.lines(),
              Lines{"WARN NS_UTL::ProcessUtils::start - failed to start '/bin/true': Bad file descriptor"});
}

TEST(ProcessUtilsLinux, WithoutSigchldThereIsNoExitCode) {
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(started("/bin/false"), Started(Result::NoExitCode, kUntouched));
    std::signal(SIGCHLD, SIG_DFL);
}

void onAlarm(int) {}

TEST(ProcessUtilsLinux, ASignalDoesNotEndTheWait) {
    struct sigaction action = {};
    action.sa_handler = &onAlarm; // without SA_RESTART
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    ::ualarm(/*value=*/20000, /*interval=*/20000);
    EXPECT_EQ(started("/bin/sleep 0.2"), kFinished);
    ::ualarm(0, 0);
}

} // namespace
} // namespace NS_UTL
