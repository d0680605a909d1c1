#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_parentconsole_win32.h"

// Here without a console; tests/system/console_test.py has the rows with one, which needs a terminal, and uses the two
// children below for them.
namespace NS_UTL {
namespace {

constexpr std::string_view kOutput = "output \xC3\xA9 \xD0\x96 \xE6\xB8\xAC\xE8\xA9\xA6\n";
constexpr std::string_view kErrors = "errors \xC3\xA9 \xD0\x96 \xE6\xB8\xAC\xE8\xA9\xA6\n";

// Byte by byte, because only the buffer makes the bytes of a character reach the console together.
void write(std::FILE* stream, std::string_view text) {
    for (const char byte : text) std::fputc(byte, stream);
    std::fflush(stream);
}

// Writes to both streams, and into a file what it found. Sets the code page that follows the file, if one does.
int writeText(const std::vector<std::string>& arguments) {
    const ParentConsole console;
    write(stdout, kOutput);
    write(stderr, kErrors);
    std::ofstream(test::fromText(arguments.at(0)), std::ios::binary) << "code page " << ::GetConsoleOutputCP();
    if (arguments.size() > 1) ::SetConsoleOutputCP(static_cast<UINT>(std::stoul(arguments[1])));
    return 7;
}

BOOL WINAPI attachAtOnce(DWORD /*process*/) {
    return TRUE;
}

int g_requests = 0; // that Ctrl+C reach this process

BOOL WINAPI noteRequest(PHANDLER_ROUTINE routine, BOOL isAdded) {
    if (!routine && !isAdded) ++g_requests;
    return TRUE;
}

struct Program {
    NS_CORE::ScopedKernelHandle process;

    // With these streams, if there are any.
    Program(std::string commandLine, DWORD flags, HANDLE output, HANDLE errors) {
        STARTUPINFOA startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = output ? STARTF_USESTDHANDLES : 0;
        startup.hStdOutput = output;
        startup.hStdError = errors;
        PROCESS_INFORMATION started = {};
        ::CreateProcessA(/*lpApplicationName=*/nullptr, commandLine.data(), nullptr, nullptr,
                         /*bInheritHandles=*/output != nullptr, flags, nullptr, nullptr, &startup, &started);
        process.reset(started.hProcess);
        const NS_CORE::ScopedKernelHandle thread(started.hThread);
    }

    DWORD awaitExit() const {
        ::WaitForSingleObject(process.get(), INFINITE);
        DWORD code = 0;
        return ::GetExitCodeProcess(process.get(), &code) ? code : 1000;
    }
};

NS_CORE::ScopedFileHandle openForChild(const std::string& file) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, /*bInheritHandle=*/TRUE};
    return NS_CORE::ScopedFileHandle(::CreateFileA(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                                   CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

BOOL WINAPI outlive(DWORD /*event*/) {
    return TRUE;
}

// Makes a Control-C for everybody at this console once the file is there.
void interruptWhen(const std::string& file) {
    while (::GetFileAttributesA(file.c_str()) == INVALID_FILE_ATTRIBUTES) ::Sleep(10);
    ::GenerateConsoleCtrlEvent(CTRL_C_EVENT, /*dwProcessGroupId=*/0);
}

// A prompt that waits: runs a command line in its console and tells the exit code, and the console's code page before
// and after. Arguments:
// - lend: the program has the console from the start, as Wine does it for all; redirect: the same, but its output goes
//   to the file, and for redirect-all its errors, too; alone: the program begins without a console, and gets an event
//   of Ctrl+C when the file is there (a Ctrl+C that the parent had switched off stays off under Wine, whatever the
//   program asks for);
// - the file;
// - the command line's words.
int beParent(const std::vector<std::string>& arguments) {
    const std::string& how = arguments.at(0);
    const std::string& file = arguments.at(1);
    const bool isAlone = how == "alone";
    ::SetConsoleCtrlHandler(&outlive, /*Add=*/TRUE);
    const UINT before = ::GetConsoleOutputCP();
    NS_CORE::ScopedFileHandle output;
    if (how.starts_with("redirect")) output = openForChild(file);
    std::string commandLine;
    for (size_t i = 2; i < arguments.size(); ++i) commandLine += '"' + arguments[i] + "\" ";
    const Program program(commandLine, isAlone ? DETACHED_PROCESS : 0, output ? output.get() : nullptr,
                          how == "redirect-all" ? output.get() : ::GetStdHandle(STD_ERROR_HANDLE));
    if (isAlone) interruptWhen(file);
    const DWORD code = program.awaitExit();
    std::printf("ended with %lu, code pages %u %u\n", code, before, ::GetConsoleOutputCP());
    std::fflush(stdout);
    return 0;
}

std::string asTextFile(std::string_view line) {
    return std::string(line.substr(0, line.size() - 1)) + "\r\n";
}

const test::ChildProgram g_text("console-text", &writeText);
const test::ChildProgram g_parent("console-parent", &beParent);
const test::ChildProgram g_requesting("console-requesting", [](const std::vector<std::string>& /*arguments*/) {
    const test::ImportHook attaching("AttachConsole", &attachAtOnce);
    const test::ImportHook requesting("SetConsoleCtrlHandler", &noteRequest);
    const ParentConsole console;
    return g_requests;
});

TEST(ParentConsoleTest, WithoutAConsoleTheStreamsKeepTheirBytes) {
    ::FreeConsole();
    const test::TempDir dir;
    const NS_CORE::ScopedFileHandle output = openForChild(dir.file("output"));
    const NS_CORE::ScopedFileHandle errors = openForChild(dir.file("errors"));
    const Program program(test::childCommandLine("console-text", {dir.file("found")}), DETACHED_PROCESS, output.get(),
                          errors.get());
    EXPECT_EQ(program.awaitExit(), 7U);
    EXPECT_EQ(test::readFile(dir.path() / "output"), asTextFile(kOutput));
    EXPECT_EQ(test::readFile(dir.path() / "errors"), asTextFile(kErrors));
    EXPECT_EQ(test::readFile(dir.path() / "found"), "code page 0");
}

// Wine does not grant it, so that the request is all there is to see.
TEST(ParentConsoleTest, RequestsThatControlCReachTheProcess) {
    EXPECT_EQ(test::runAndWait(test::childCommandLine("console-requesting")), 1);
}

} // namespace
} // namespace NS_UTL
