#include <string>
#include <utility>
#include <vector>

#include "core/files/core_dir.h"
#include "service/main.h"

int main(int argc, char** argv) {
    // The words come split from whoever started the process; element 0 is the full path here as well.
    std::string program;
    if (!NS_CORE::Dir::getModuleFilename(program)) program.clear();
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) words.emplace_back(argv[i]);
    service::ArgumentVector arguments(std::move(program), std::move(words));
    return service::runProcess(arguments);
}
