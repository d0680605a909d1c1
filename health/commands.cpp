#include "health/commands.h"

namespace health {

std::string quoted(const std::string& path) {
    return path.find_first_of(" &()^;,=%!'`$[]{}<>|#~") == std::string::npos ? path : '"' + path + '"';
}

} // namespace health
