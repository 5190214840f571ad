// filter.h: the multi-level edge-preserving filter: colour-distance kernel,
// sparse convolution, level pass and pyramid.
#pragma once

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
    int kernelStep;
    int largestHalfKernelSize;
    int largestPhysicalKernelSize;
    int levelGaussOnly;
    int level;
    float rangeKernelSigma;
    int extendedRowStride;
    int imageHasBorder;
};
// 0, or -4 when a thread's kernel buffer could not be allocated (then no row
// is filtered).
int levelPass(int nbProc, const LevelPassArgs &args);

// Level pyramid (pyramid.cpp).
int fusion2a(int nbProc, int numLevels, float kernelSize, float kernelSizeMult,
             float sigmaSpatial, float sigmaRange, int gaussOnly, int iMax, int jMax,
             const int spp, int bps, unsigned char *inImage, const int crossSpp,
             const int crossBps, unsigned char *crossFilter, unsigned char *brightImage,
             int *accuracyFactorsIn, int *highAccuracyFactorsIn, unsigned char **outDiffTower,
             unsigned char **outImageTower, unsigned char *outImage);

// ---------------------------------------------------------------------------
// SIMD path (level_pass_hwy.cpp)

namespace simd {
// The 8-bit level pass of an image with its border built in, vectorised
// across neighbouring pixels of a row, with the plain pass's bytes. Returns
// false, having written nothing, when it does not cover the case or cannot
// get its working memory; the caller then runs the plain pass.
bool levelPass(int nbProc, const LevelPassArgs &args);
// The instruction set the SIMD path runs on ("AVX3", "AVX2", ...).
const char *targetName();
}  // namespace simd

}  // namespace lumora
