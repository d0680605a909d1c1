#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test {

// The argument that makes a test program a child; the child's name and its arguments follow.
inline constexpr char kChildWord[] = "--run-child";

// What a test program does instead of testing when it is started with childCommandLine(name, ...): its exit code is
// what `run` returns. Define one per kind of child, at namespace scope of the test that starts it:
//
//     const test::ChildProgram g_ends("ends", [](const auto& arguments) { return std::stoi(arguments.at(0)); });
class ChildProgram {
public:
    using Run = std::function<int(const std::vector<std::string>& arguments)>;
    ChildProgram(const char* name, Run run);
};

// The running program's own path, UTF-8.
std::string thisProgram();

// The command line that makes the running program, or `program`, such a child. Arguments must hold no double quote and
// not end in a backslash.
std::string childCommandLine(const std::string& name, const std::vector<std::string>& arguments = {});
std::string childCommandLineOf(const std::string& program, const std::string& name,
                               const std::vector<std::string>& arguments = {});

// Makes a hard link to the running program at `path`, or a copy where that is another volume.
void linkThisProgram(const std::filesystem::path& path);

// Runs a command line without the product's code, waits for the end and returns the exit code; -1 on failure.
int runAndWait(const std::string& commandLine);

// For main: the child's exit code when the arguments ask for one.
std::optional<int> runAsChild(int argc, char** argv);

} // namespace test
