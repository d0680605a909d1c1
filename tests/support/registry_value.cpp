#include "tests/support/registry_value.h"

#include "tests/support/temp_dir.h"

namespace test {

std::string dataFile(const std::string& name) {
    return utf8(builtFile(QUORKERI_TEST_DATA "/" + name));
}

} // namespace test
