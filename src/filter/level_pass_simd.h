// What the SIMD level pass shares between its plan (level_pass_plan.cpp,
// compiled once) and its per-target kernels (level_pass_hwy.cpp): the
// kernels addressed in the planes, what every row reads and a thread's
// scratch.

#ifndef LUMORA_FILTER_LEVEL_PASS_SIMD_H
#define LUMORA_FILTER_LEVEL_PASS_SIMD_H

#include <cstddef>
#include <cstdint>

#include "filter/filter.h"

namespace lumora {
namespace simd {

// One sparse kernel addressed in the planes. For the whole level: entry e
// of the pixel whose window origin is copy pixel index p lies at copy pixel
// index p + offset[e]. For one row (rowKernel): entry e of the pixel in
// column i lies at plane index offset[e] + i.
struct KernelPlan {
    const ptrdiff_t *offset;
    const float *factor;
    int n;
    int centre;
};

// What every row of one level's SIMD pass reads.
struct Pass {
    const LevelPassArgs *args;
    const unsigned char *sample[3];  // one plane of bytes per sample
    const float *lab[3];             // L, A, B planes (filtered colour levels)
    // Colour levels steered by the map: every pixel's L, A, B and its three
    // bytes (then a zero) in 16 bytes, one cache line for a packed lane's
    // entry.
    const float *record;
    size_t width;                    // pixels per row of the bordered copy
    // Rows of the planes' ring (the planes then have one row more, a copy
    // of ring row 0, for reads that run on past the last ring row's end);
    // 0: the planes hold the whole copy.
    int ringRows;
    KernelPlan normal;
    KernelPlan fine;
    bool useMap;
    int block;  // pixels filtered together, a multiple of the lane count
};

// One thread's working memory for a block of pixels.
struct Scratch {
    float *weights;          // entries x vectors at once x lanes: their bilateral weights
    int32_t *stash;          // entries x lanes: a packed vector's bytes, kept for its sums
    int32_t *resultNormal;   // spp x block truncated sums, normal kernel
    int32_t *resultFine;     // likewise, fine kernel
    KernelChoice *choice;    // block kernel choices
    unsigned char *need;     // 2 x block/lanes: vectors that need the normal / fine kernel
    int32_t *packed;         // row columns of the fine pixels computed packed
    ptrdiff_t *rowOffset;    // the row's entry offsets, normal kernel then fine
    KernelEntry *kernel;     // the thread's kernel buffer for the per-pixel code
};
// Neighbouring vectors of unpacked lanes a filtered level's kernels work out
// together: two for colour levels, four for one-sample levels (AVX2, AMD
// EPYC, 12 MP level pass benchmark and whole fusions: four colour vectors
// run out of registers; four one-sample vectors beat two by about a tenth).
// AVX-512 and SVE go one vector at a time (level_pass_hwy.cpp), and their
// weight scratch holds one vector's.
constexpr int vectorsAtOnce(int spp) { return spp == 3 ? 2 : 4; }
constexpr int SCRATCH_PIECES = 8;  // the pointers of Scratch but the kernel

// Kernel k of the level addressed for row j: where each entry of the row's
// pixels lies in the planes, from the window origin of its column 0. A
// vector's read may run on past the end of its plane row into the next; the
// ring's extra row keeps that true across the ring's end.
inline KernelPlan rowKernel(const KernelPlan &k, size_t width, int ringRows, int j,
                            ptrdiff_t *offset) {
    const ptrdiff_t w = (ptrdiff_t)width;
    for (int e = 0; e < k.n; e++) {
        const ptrdiff_t q = (ptrdiff_t)j * w + k.offset[e];
        if (ringRows == 0) {
            offset[e] = q;
            continue;
        }
        ptrdiff_t row = q / w, column = q % w;
        if (column < 0) row--, column += w;
        offset[e] = (row % ringRows) * w + column;
    }
    return {offset, k.factor, k.n, k.centre};
}

// Output row j of the level p describes, with one thread's scratch.
using RowFunction = void (*)(const Pass &p, int j, const Scratch &s);
// The row function of the instruction set the SIMD path runs on, with the
// per-lane reads chosenLaneReads gives, that set's floats per vector and
// whether it filters runs of vectorsAtOnce vectors: all from the same choice.
RowFunction rowFunction(size_t *lanes, bool *runs);

}  // namespace simd
}  // namespace lumora

#endif  // LUMORA_FILTER_LEVEL_PASS_SIMD_H
