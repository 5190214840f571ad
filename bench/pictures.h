// Pictures for the benchmarks: the sample bracket read from PNG and scaled
// to a benchmark's size.
#pragma once

#include <string>
#include <vector>

namespace benchsupport {

using Bytes = std::vector<unsigned char>;

// An RGB PNG file's pixels; ends the program when it cannot be read.
Bytes loadPng(const std::string &path, int *w, int *h);

// Bilinear upscale of a w x h RGB picture to W x H.
Bytes upscale(const Bytes &src, int w, int h, int W, int H);

}  // namespace benchsupport
