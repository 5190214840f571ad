// image.h: images with mirrored outside borders, and 3x3 smoothing.
#pragma once

#include "core/core.h"

namespace lumora {

// ---------------------------------------------------------------------------
// Bordered images (bordered_image.cpp) and 3x3 smoothing (smoothing.cpp)

// The copy and the borders are shared out among nbProc threads.
int createOutsideImageBorders(int iMax, int jMax, int spp, int bps, ImageWithBorder *img,
                              int nbProc = 1);
void freeOutsideImageBorders(ImageWithBorder *img);
unsigned char *imageData(int iMax, int jMax, int spp, int bps, int rowStride,
                         ImageWithBorder *img, int x, int y);

// One interior row j of the 8-bit 3x3 smoothing (rows j-1, j, j+1 in, row j
// out), vectorised, with the plain row's bytes (smoothing_hwy.cpp).
namespace simd {
void smoothRow8(const unsigned char *prev, const unsigned char *cur, const unsigned char *next,
                unsigned char *out, int rowStride, int spp);
}  // namespace simd

}  // namespace lumora
