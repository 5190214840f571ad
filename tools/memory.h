// memory.h: whether a fusion fits in the memory at hand.
//
// A fusion that cannot fit is refused at the first header, before any
// picture is decoded, rather than failing or pushing the machine into swap
// minutes later.
#pragma once

#include <string>

#include "options.h"

namespace lumora_fuse {

// The peak resident memory of a run that decodes `exposures` pictures of
// picturePixels and fuses fusedPixels of them, in bytes.
double fusionBytes(double picturePixels, double fusedPixels, int exposures);

// Whether fusing `exposures` width x height pictures (the loupe's region of
// them, where it lies inside) fits; false with a one-line message.
bool fusionFitsMemory(int width, int height, const Loupe &loupe, int exposures, std::string &error);

// Whether a whole-picture fusion of `exposures` width x height pictures and
// moreBytes beside it fit.
bool memoryHolds(int width, int height, int exposures, double moreBytes);

}  // namespace lumora_fuse
