// layout.h: how the fusion's per-exposure buffers are laid out, and the
// words the code uses for them.
//
// Glossary. The names come from the first version of this code and stay,
// since the assertion messages print some of them and hosts match on those:
//   kMax      the number of exposures (images) fused, 2 or 3; k counts them.
//   iMax      picture width in pixels; i counts columns (or samples of a row).
//   jMax      picture height in pixels; j counts rows.
//   spp       samples per pixel (3: RGB).
//   max8      the largest sample value (255 for 8 bits).
//   max7      half the sample range (128 for 8 bits): the zero of a detail
//             (difference) sample, stored offset so that it fits a byte.
//   poids     weights (French): per-pixel exposure weights, one byte each,
//             255 for 1.0. poidsLev: one pixel's weights at one level.
//   coeffErreur  the well-exposedness table: a Gaussian of a sample's
//             distance from mid-grey, read by the exposure weights.
//   tower     one exposure's pyramid: its filtered (smoothed) levels 0 to
//             numLevels - 1, each coarser than the last.
//   detail    (the "diff" tower) the differences between consecutive
//             filtered levels, offset by max7; detail level 0 is the source
//             less filtered level 0.
//   level     lev 0 is the finest (the picture itself, or its detail), lev
//             numLevels the coarsest smoothed picture.
//   bright image  the highlight mask (where the fused picture is near
//             white), blurred and stretched: in the highlight pass it picks,
//             per pixel, which kernel filters there (the map levels).
#pragma once

#include <cstddef>

namespace lumora {

// Slot of exposure k's level lev in the tower arrays (filtered and detail
// alike): every exposure's levels side by side, k major.
constexpr int towerSlot(int k, int lev, int numLevels) { return k * numLevels + lev; }

// Byte offset of exposure k's weight plane at level lev in the weight
// buffer: level major, level 0 the raw weights, levels 1 to numLevels the
// filtered ones; planeBytes per plane.
constexpr size_t weightPlaneOffset(int lev, int k, int kMax, size_t planeBytes) {
    return (size_t)(lev * kMax + k) * planeBytes;
}

// The reconstruction's entry of exposure k at level lev, in the order a
// pixel's sum takes them: the coarsest level first, exposures in order.
constexpr int blendEntry(int lev, int k, int numLevels, int kMax) { return (numLevels - lev) * kMax + k; }

}  // namespace lumora
