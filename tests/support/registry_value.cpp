#include "tests/support/registry_value.h"

namespace test {

std::string dataFile(const std::string& name) {
    return QUORKERI_TEST_DATA "/" + name;
}

} // namespace test
