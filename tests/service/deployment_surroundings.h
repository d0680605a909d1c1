#pragma once

#include <string>

namespace test {

// Puts the calling process into named surroundings that make deploying hard. False when there are none of that name
// here or they cannot be had.
//   nobody         without the rights of the administrator (Linux)
//   full-disk      with a file system of 1 MiB in the place of ./bin (Linux)
//   small-files    with no file larger than 256 KiB (Linux)
bool enterSurroundings(const std::string& name);

// What only this process can see of its surroundings: "BIN name: size" lines for full-disk, otherwise nothing.
std::string describeSurroundings();

} // namespace test
