#include "tests/support/child.h"

#include <cstdio>
#include <map>
#include <system_error>
#include <utility>

#include "tests/support/temp_dir.h"

namespace test {
namespace {

// Created on first use: the children are registered by static initialisers.
std::map<std::string, ChildProgram::Run>& children() {
    static std::map<std::string, ChildProgram::Run> all;
    return all;
}

} // namespace

ChildProgram::ChildProgram(const char* name, Run run) {
    children()[name] = std::move(run);
}

std::string childCommandLineOf(const std::string& program, const std::string& name,
                               const std::vector<std::string>& arguments) {
    std::string line = '"' + program + "\" " + kChildWord + ' ' + name;
    for (const std::string& argument : arguments) line += " \"" + argument + '"';
    return line;
}

std::string childCommandLine(const std::string& name, const std::vector<std::string>& arguments) {
    return childCommandLineOf(thisProgram(), name, arguments);
}

void linkThisProgram(const std::filesystem::path& path) {
    const std::filesystem::path from = fromText(thisProgram());
    std::error_code otherVolume;
    std::filesystem::create_hard_link(from, path, otherVolume);
    if (otherVolume) std::filesystem::copy_file(from, path);
}

std::optional<int> runAsChild(int argc, char** argv) {
    if (argc < 3 || argv[1] != std::string(kChildWord)) return std::nullopt;
    const auto child = children().find(argv[2]);
    if (child == children().end()) {
        std::fprintf(stderr, "There is no child called %s\n", argv[2]);
        return 127;
    }
    return child->second({argv + 3, argv + argc});
}

} // namespace test
