#include <stdlib.h>
#include <time.h>

#include "tests/support/time_zone.h"

namespace test {

void setTimeZone(const std::string& zone) {
    ::setenv("TZ", zone.c_str(), /*replace=*/1);
    ::tzset();
}

} // namespace test
