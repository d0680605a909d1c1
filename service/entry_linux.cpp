#include <string>
#include <utility>
#include <vector>

#include "core/files/core_dir.h"
#include "service/main.h"

int main(int argc, char** argv) {
    // Linux passes the words already split. Element 0 is replaced by the full path, as on Windows.
    std::string program; // stays empty where the path is too long
    static_cast<void>(NS_CORE::Dir::getModuleFilename(program));
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) words.emplace_back(argv[i]);
    service::ArgumentVector arguments(std::move(program), std::move(words));
    return service::runProcess(arguments);
}
