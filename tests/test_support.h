// Small helpers shared by the tests: seeded images and file paths.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// iMax * jMax * spp bytes of seeded pseudo-random samples.
std::vector<unsigned char> randomImage(int iMax, int jMax, int spp, uint32_t seed);

// A file name in a fresh per-test temporary folder.
std::string tempPath(const std::string &name);

// Path of a file below samples/.
std::string samplePath(const std::string &relative);

}  // namespace testsupport
