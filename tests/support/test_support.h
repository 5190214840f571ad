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

// An 8-bit RGB image read from a PNG file (fails the test on error).
struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;  // width * height * 3, rows top to bottom
};
RgbImage loadPngRgb(const std::string &path);

// The shipped three-exposure bracket, darkest first.
RgbImage loadSample(int index);

}  // namespace testsupport
