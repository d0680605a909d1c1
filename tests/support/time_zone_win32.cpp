#include <stdlib.h>
#include <time.h>

#include "tests/support/time_zone.h"

namespace test {

void setTimeZone(const std::string& zone) {
    ::_putenv(("TZ=" + zone).c_str());
    ::_tzset();
}

} // namespace test
