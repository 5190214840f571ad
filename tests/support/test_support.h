// Helpers shared by the tests: seeded and sample images, checksums, and the
// loop over the instruction sets of the SIMD path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = std::vector<unsigned char>;

// iMax * jMax * spp bytes of seeded pseudo-random samples.
Bytes randomImage(int iMax, int jMax, int spp, uint32_t seed);

// Test pictures: 0 noise, 1 flat, 2 steps and a hard diagonal edge,
// 3 gradients, 4 near-white with dark blocks, 5 noise on steps.
Bytes testPicture(int kind, int iMax, int jMax, int spp, uint32_t seed);
// Bright maps: 1 noise; 2 every bright-value band (0, 5, 10..200 by 10, 255)
// in blocks; 3 all 100 (fine kernel on every fourth anti-diagonal); 4 rows
// cycling through the anti-diagonal periods 20, 10, 6, 5, 4, 3 and 2, with
// columns 32..63 all fine (whole vectors of fine lanes among sparse ones).
Bytes brightMap(int kind, int iMax, int jMax, uint32_t seed);

// Exposure k (0 darkest, 1, 2 brightest) of the shipped 512x384 bracket, or
// its w x h window at (x0, y0).
Bytes sample(int k, int x0 = 0, int y0 = 0, int w = 512, int h = 384);

// 64-bit FNV-1a of size bytes, continuing from h (golden outputs).
uint64_t checksum(const void *data, size_t size, uint64_t h = 14695981039346656037ull);
inline uint64_t checksum(const Bytes &b) { return checksum(b.data(), b.size()); }

// Runs f(index) once per instruction set the SIMD path was compiled for and
// this processor has, with dispatch forced to it.
void forEachTarget(const std::function<void(int)> &f);

// "" when equal, else the first differing byte with its pixel and sample,
// for images iMax pixels wide.
std::string firstDifference(const Bytes &want, const Bytes &got, int iMax, int spp,
                            int bytesPerSample = 1);

}  // namespace testsupport
