// filter.h: the multi-level edge-preserving filter: colour-distance kernel,
// sparse convolution, level pass and pyramid.
#pragma once

#include <vector>

#include "core/core.h"

namespace lumora {

// ---------------------------------------------------------------------------
// Multi-level edge-preserving filter

// Colour-distance bilateral kernel of one pixel (bilateral_kernel.cpp).
void fusion2f(int iMax, int jMax, int sppx, int bps, int rowStride, ImageWithBorder *img,
              float *expLut, float *logLut, float *rgbeExpLut, int posX, int posY,
              int kernelSize, float sigma, int numKernelEntries, KernelEntry *spatialKernel,
              KernelEntry *kernel);

// Sparse convolution of one output pixel (convolution.cpp).
void convolveFastSimple8(unsigned char *inImgPtr, unsigned char *outImgPtr, int spp,
                         int rowStride, float *logLut, float *unLogLut, int numKernelEntries,
                         KernelEntry *bilateralKernel);
void convolveFastSimple16(unsigned short *inImgPtr, unsigned short *outImgPtr, int spp,
                          int rowStride, float *logLut, float *unLogLut, int numKernelEntries,
                          KernelEntry *bilateralKernel, int kernelSize);
void convolveFastIncludingEdges(ImageWithBorder *img, unsigned char *outImgPtr, int iMax,
                                int jMax, int spp, int bps, int rowStride, float *logLut,
                                int posX, int posY, int numKernelEntries,
                                KernelEntry *bilateralKernel, int kernelSize);

// Everything one level's parallel pass reads (level_pass.cpp).
struct LevelPassArgs {
    ImageWithBorder *img;
    ImageWithBorder *filterImg;
    int filterSpp;
    int filterBps;
    int filterRowStride;
    int filterExtendedRowStride;
    unsigned char *imgOutput;
    unsigned char *smoothImg;
    KernelEntry *spatialKernel;
    int numKernelEntries;
    KernelEntry *spatialKernelFine;
    int numFineKernelEntries;
    float *expLut;
    float *logLut;
    float *unLogLut;
    float *rgbeExpLut;
    unsigned char *brightImage;
    int spp;
    int bps;
    int byteDepth;
    int rowStride;
    int rowStrideBytes;
    int iMax;
    int jMax;
    int physicalKernelSize;
    int halfKernelSize;
    int largestHalfKernelSize;
    int largestPhysicalKernelSize;
    int levelGaussOnly;
    int level;
    float rangeKernelSigma;
    int extendedRowStride;
    int imageHasBorder;
};
// A level-1 pass over an 8-bit image with its border of b built in, guided
// by itself, in a (2b+1)-square window, with the given kernels, range table
// and bright map: the checks of a faster pass build theirs from it.
LevelPassArgs selfGuidedLevel(ImageWithBorder &img, int iMax, int jMax, int spp, int b,
                              std::vector<KernelEntry> &normal, std::vector<KernelEntry> &fine,
                              float *expLut, unsigned char *map);

// 0, or -4 when a thread's kernel buffer could not be allocated (then no row
// is filtered). The pass runs the level's only thread team; the SIMD path,
// where it covers the level, fills the rows the team hands it.
int levelPass(int nbProc, const LevelPassArgs &args);

// Whether a level consults the bright map: from level 2 on, when there is one.
inline bool levelUsesBrightMap(const LevelPassArgs &a) {
    return a.level != 1 && a.brightImage != nullptr;
}

// What the bright map asks of pixel (i, j) of a level that consults it.
enum class KernelChoice : unsigned char { Copy, Normal, Fine };
inline KernelChoice chooseKernel(int bright, int i, int j) {
    if (bright == 0) return KernelChoice::Copy;
    if (bright < 10) return KernelChoice::Normal;
    if (bright > 200) return KernelChoice::Fine;
    // Fine-kernel pixels lie on anti-diagonals whose period shrinks as the
    // map gets brighter: 20 for 10..39 down to 2 for 140..200.
    int d = bright / 20;
    if (d == 0) d = 1;
    const int period = (int)((1.0 / d) * 20.0);
    return (i + j) % period == 0 ? KernelChoice::Fine : KernelChoice::Normal;
}

// Pixel (i, j) of an 8-bit level through the per-pixel functions: copied,
// or fusion2f and convolveFastSimple8 with the chosen kernel. The reference
// of both paths (the SIMD path sends it the pixels it does not vectorise).
void filterPixel8(const LevelPassArgs &a, int i, int j, int externalBorderSpace,
                  KernelEntry *bilateralKernel);

// Level pyramid (pyramid.cpp).
int fusion2a(int nbProc, int numLevels, float kernelSize, float kernelSizeMult,
             float sigmaSpatial, float sigmaRange, int gaussOnly, int iMax, int jMax,
             const int spp, int bps, unsigned char *inImage, const int crossSpp,
             const int crossBps, unsigned char *crossFilter, unsigned char *brightImage,
             int *accuracyFactorsIn, int *highAccuracyFactorsIn, unsigned char **outDiffTower,
             unsigned char **outImageTower, unsigned char *outImage);

// ---------------------------------------------------------------------------
// SIMD path (level_pass_plan.cpp, level_pass_hwy.cpp)

namespace simd {
// One level's SIMD working state: the sample and CIELab planes of the
// bordered copy, the kernels addressed in them and every thread's scratch.
struct LevelPlan;
// Built on the calling thread before the team starts, for a team of at most
// nbProc threads. Null when the SIMD path does not cover the level (it takes
// 8-bit one- and three-sample images with their border built in, guided by
// themselves, and no debug dumps) or cannot get its memory: the plain pass
// then runs.
LevelPlan *planLevel(int nbProc, const LevelPassArgs &args);
void releaseLevelPlan(LevelPlan *plan);
// Output rows per band: the rows of a band read one load of the planes.
int bandRows(const LevelPlan &plan);
// Whether the planes are loaded band by band (colour levels; a one-sample
// copy is its own plane). Then the team loads the band from row j0 before
// its rows are filtered, member t of T its share, and meets at a barrier.
bool loadsBands(const LevelPlan &plan);
void loadBand(const LevelPlan &plan, int j0, int t, int T);
// Output row j with thread t's scratch and its per-pixel kernel buffer.
void filterRow(const LevelPlan &plan, int j, int t, KernelEntry *bilateralKernel);
// The instruction set the SIMD path runs on ("AVX3", "AVX2", ...).
const char *targetName();
// How the pass reads what each lane of a vector reads from an address of its
// own (a range-table entry; a packed one-sample lane's bytes): one gather
// instruction per vector, or one scalar load per lane. Only AVX2 offers both
// (elsewhere both are the gather); they give the same bytes, and which is
// faster depends on the core.
enum class LaneReads { Gather, Loads };
// The reads the pass uses on the instruction set it runs on: the faster of
// the two as measured once per process where there are two (about a
// millisecond on first use), unless the test switch laneReads names one.
LaneReads chosenLaneReads();
// The range-table reads of the pass alone, for tests: out[x] = lut[idx[x]]
// as the weights of both kinds of level read it; count is a multiple of 64,
// indices below EXP_LUT_ENTRIES.
void rangeLookup(const float *lut, const int32_t *idx, size_t count, float *out,
                 LaneReads reads);
}  // namespace simd

}  // namespace lumora
