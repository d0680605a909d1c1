#include "service/deployment_platform.h"

namespace deployment_platform {

const char* const kPathFormat = "%s\\%s";

} // namespace deployment_platform
