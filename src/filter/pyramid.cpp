// Level pyramid: a tower of ever smoother full-resolution versions of an
// image, and optionally the tower of differences between neighbouring levels.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

namespace lumora {
namespace {

// The level's input mapped through the CIELab table into a viewable picture.
void saveLabImage(const unsigned char *input, int iMax, int jMax, const char *name) {
    const size_t numPixels = (size_t)iMax * jMax;
    unsigned char *picture = static_cast<unsigned char *>(allocate(numPixels * 3));
    if (picture == nullptr) return;
    for (size_t p = 0; p < numPixels; p++) {
        const unsigned char *rgb = input + p * 3;
        const LABData &lab = labLUT[rgb[0]][rgb[1]][rgb[2]];
        picture[p * 3 + 0] = (unsigned char)(int)(lab.l * 255.0f / 200.0f);
        picture[p * 3 + 1] = (unsigned char)(int)(lab.a * 255.0f / 300.0f);
        picture[p * 3 + 2] = (unsigned char)(int)(lab.b * 255.0f / 300.0f);
    }
    saveTestImage(name, iMax, jMax, 3, 8, picture);
    release(picture);
}

// Moves every entry of a kernel by (dx, dy); no entry may end up left of or
// above the window. The check reports as the pyramid's own.
void shiftKernel(KernelEntry *kernel, int numEntries, int dx, int dy) {
    for (int e = 0; e < numEntries; e++) {
        KernelEntry *kptr = &kernel[e];
        kptr->xpos += dx;
        kptr->ypos += dy;
        BF_ASSERT_IN(kptr->xpos >= 0 && kptr->ypos >= 0, "fusion2a");
    }
}

// Odd window size of a kernel of the given width, in the exact order of
// clamps: the minimum of 5 is set and then undone whenever it exceeds the
// width, so it never survives.
int physicalSize(float width) {
    int size = (int)width;
    if (size <= 4) size = 5;
    if ((float)size >= width) size = (int)width;
    if (size == 0) size = 1;
    if (size % 2 == 0) size++;
    return size;
}

}  // namespace

int fusion2a(int nbProc, int numLevels, float kernelSize, float kernelSizeMult,
             float sigmaSpatial, float sigmaRange, int gaussOnly, int iMax, int jMax,
             const int spp, int bps, unsigned char *inImage, const int crossSpp,
             const int crossBps, unsigned char *crossFilter, unsigned char *brightImage,
             int *accuracyFactorsIn, int *highAccuracyFactorsIn, unsigned char **outDiffTower,
             unsigned char **outImageTower, unsigned char *outImage) {
    // The cross-filter guide is accepted and deliberately ignored; only its
    // row stride is worked out.
    [[maybe_unused]] const int crossRowStride = crossBps == 32 ? iMax * 4 : iMax * crossSpp;

    int retour = 0;
    int level = 1;
    ImageWithBorder img;  // empty until the first level borders its input
    int *defaultAccFactors = nullptr;
    int *defaultHighAccFactors = nullptr;
    float *expLut = nullptr;
    float *logLut = nullptr;
    unsigned char *smoothImg = nullptr;
    KernelEntry *spatialKernel = nullptr;
    KernelEntry *spatialKernelFine = nullptr;
    unsigned char **images = nullptr;
    int *accFactors = accuracyFactorsIn;
    int *highAccFactors = highAccuracyFactorsIn;
    float rgbeExpLut[RGBE_EXP_LUT_ENTRIES];
    int numKernelEntries = 0;
    int numFineKernelEntries = 0;

    // Set-up.
    int halfKernelSize = (int)(kernelSize / 2.0f);
    const int byteDepth = bps / 8;
    const int rowStride = iMax * spp;
    const int rowStrideBytes = rowStride * byteDepth;
    const int imageStride = rowStride * jMax;
    const size_t imageBytes = (size_t)imageStride * byteDepth;
    const int maxVal = (1 << bps) - 1;
    const int kernelStep = 1;  // the sparse kernels are never sub-sampled further
    const int largestKernelSize = std::min(2999, std::min(iMax, jMax));
    const float spatialKernelSigma = (float)(sigmaSpatial * 1.7320508075688772);
    const int imageHasBorder = 1;
    int extendedRowStride = -1;
    int filterExtendedRowStride = -1;
    // Every level is guided by its own input.
    ImageWithBorder *filterImg = &img;
    const int filterSpp = spp;
    const int filterBps = bps;
    const int filterRowStride = rowStride;
    const int levelSlots = std::max(numLevels, 1);
    float rangeKernelSigma;

    if (accFactors == nullptr) {
        defaultAccFactors = static_cast<int *>(allocate(levelSlots * sizeof(int)));
        if (defaultAccFactors == nullptr) goto outOfMemory;
        for (int l = 0; l < numLevels; l++) defaultAccFactors[l] = SPATIAL_KERNEL_APPROX_DEFAULT;
        accFactors = defaultAccFactors;
    }
    if (highAccFactors == nullptr) {
        defaultHighAccFactors = static_cast<int *>(allocate(levelSlots * sizeof(int)));
        if (defaultHighAccFactors == nullptr) goto outOfMemory;
        for (int l = 0; l < numLevels; l++) defaultHighAccFactors[l] = SPATIAL_KERNEL_APPROX_FINE;
        highAccFactors = defaultHighAccFactors;
    }

    // The colour distance reads the CIELab table: a table that could not be
    // allocated counts as a buffer of ours that could not be.
    if (spp == 3 && bps == 8 && labLUT == nullptr) goto outOfMemory;

    makeRgbeExpLut(rgbeExpLut);
    expLut = static_cast<float *>(allocate(fusion2luts(maxVal) * sizeof(float)));
    // logLut is handed down and never read; it lives on the heap with expLut
    // rather than taking 256 KB of the caller's stack. unLogLut is reserved
    // and read by nothing, so none is made.
    logLut = static_cast<float *>(allocate(LOG_LUT_ENTRIES * sizeof(float)));
    if (expLut == nullptr || logLut == nullptr) goto outOfMemory;
    makeLogLUT(logLut);

    // Zero-filled so that what the 16-bit smoothing leaves unwritten is
    // defined.
    smoothImg = static_cast<unsigned char *>(allocateZeroed(std::max<size_t>(imageBytes, 1), 1));
    if (smoothImg == nullptr) goto outOfMemory;

    rangeKernelSigma = sigmaRange;

    // One allocation per kernel, large enough for every level and accuracy.
    for (int l = 1; l <= numLevels; l++) {
        const int fine = fastSpatialKernelNumEntries(largestKernelSize, spatialKernelSigma,
                                                     kernelSizeMult, l - 1, highAccFactors);
        const int normal = fastSpatialKernelNumEntries(largestKernelSize, spatialKernelSigma,
                                                       kernelSizeMult, l - 1, accFactors);
        numKernelEntries = std::max(numKernelEntries, std::max(fine, normal));
    }
    // Zero-filled: a gauss-only level divides numKernelEntries fine entries,
    // which can be more than the fine kernel holds.
    spatialKernel = static_cast<KernelEntry *>(
        allocateZeroed(std::max(numKernelEntries, 1), sizeof(KernelEntry)));
    spatialKernelFine = static_cast<KernelEntry *>(
        allocateZeroed(std::max(numKernelEntries, 1), sizeof(KernelEntry)));
    if (spatialKernel == nullptr || spatialKernelFine == nullptr) goto outOfMemory;

    images = static_cast<unsigned char **>(allocateZeroed(numLevels + 1, sizeof(unsigned char *)));
    if (images == nullptr) goto outOfMemory;
    images[0] = inImage;
    for (int l = 1; l <= numLevels; l++) images[l] = outImageTower[l - 1];

    for (level = 1; level <= numLevels; level++) {
        const int levelGaussOnly = gaussOnly;
        unsigned char *imgInput = images[level - 1];
        unsigned char *imgOutput = images[level];
        char name[64];
        __level = level;

        if (dbgTestImage) {
            std::snprintf(name, sizeof name, "mask-%d-before.jpg", __k);
            saveTestImage(name, iMax, jMax, spp, bps, imgInput);
        }

        // Kernels, normal before fine: both draw from rand().
        numKernelEntries = fastSpatialKernelNumEntries(largestKernelSize, spatialKernelSigma,
                                                       kernelSizeMult, level - 1, accFactors);
        if (debugMain) std::fprintf(stderr, "NUMKERNELENTRIES=%d\n", numKernelEntries);
        makeFastSpatialKernel(largestKernelSize, spatialKernelSigma, kernelSizeMult, level - 1,
                              accFactors, spatialKernel);
        numFineKernelEntries = fastSpatialKernelNumEntries(
            largestKernelSize, spatialKernelSigma, kernelSizeMult, level - 1, highAccFactors);
        if (debugMain) std::fprintf(stderr, "NUMFINEKERNELENTRIES=%d\n", numFineKernelEntries);
        makeFastSpatialKernel(largestKernelSize, spatialKernelSigma, kernelSizeMult, level - 1,
                              highAccFactors, spatialKernelFine);

        // Widths from the first and last entries, which sit in opposite
        // corners of each kernel's window. This replaces the kernelSize
        // passed in (and the previous level's).
        kernelSize = (float)(spatialKernel[numKernelEntries - 1].xpos - spatialKernel[0].xpos + 1);
        halfKernelSize = (int)(kernelSize / 2.0f);
        int fineKernelSize =
            spatialKernelFine[numFineKernelEntries - 1].xpos - spatialKernelFine[0].xpos + 1;
        const int halfFineKernelSize = fineKernelSize / 2;
        const int largestHalfKernelSize = std::max(halfKernelSize, halfFineKernelSize);

        // Give both kernels one window origin and one centre: the narrower one
        // moves onto the wider one's middle entry.
        {
            const KernelEntry &mid = spatialKernel[numKernelEntries / 2];
            const KernelEntry &fineMid = spatialKernelFine[numFineKernelEntries / 2];
            const int dx = mid.xpos - fineMid.xpos;
            const int dy = mid.ypos - fineMid.ypos;
            if (kernelSize > fineKernelSize)
                shiftKernel(spatialKernelFine, numFineKernelEntries, dx, dy);
            else if (fineKernelSize > kernelSize)
                shiftKernel(spatialKernel, numKernelEntries, -dx, -dy);
        }

        // Window sizes within the image. Kept: the normal kernel is clamped by
        // the height only.
        if (fineKernelSize >= iMax) fineKernelSize = iMax - 1;
        if (fineKernelSize >= jMax) fineKernelSize = jMax - 1;
        const int physicalFineKernelSize = physicalSize((float)fineKernelSize);
        if (kernelSize >= jMax) kernelSize = (float)(jMax - 1);
        const int physicalKernelSize = physicalSize(kernelSize);
        const int largestPhysicalKernelSize = std::max(physicalKernelSize, physicalFineKernelSize);
        const int borderSpace = std::max(physicalFineKernelSize / 2, physicalKernelSize / 2);

        extendedRowStride = (iMax + 2 * borderSpace) * spp;
        filterExtendedRowStride = filterBps == 32 ? (iMax + 2 * borderSpace) * 4
                                                  : (iMax + 2 * borderSpace) * filterSpp;

        img.inputImage = imgInput;
        img.borderWidth = borderSpace;
        img.mainImageHasBorders = imageHasBorder;
        retour = createOutsideImageBorders(iMax, jMax, spp, bps, &img);
        if (retour == -4) goto cleanup;

        if (dbgTestImage && bps == 8 && (spp == 3 || spp == 1)) {
            std::snprintf(name, sizeof name, "mask-with-edges-%d-lev%d.jpg", __k, level);
            if (spp == 3)
                saveTestImage8_3SamplesWithEdges(name, iMax, jMax, &img);
            else
                saveTestImage8_1SampleWithEdges(name, iMax, jMax, &img);
        }
        if (dbgTestImage && bps == 8 && spp == 3) {
            std::snprintf(name, sizeof name, "lab-img-%d-lev%d.jpg", __k, level);
            saveLabImage(imgInput, iMax, jMax, name);
        }

        // Rebuilt on every level with the same sigma.
        fusion2lut(rangeKernelSigma, maxVal, expLut);

        if (levelGaussOnly) {
            float sum = 0.0f;
            for (int e = 0; e < numKernelEntries; e++) sum = sum + spatialKernel[e].factor;
            for (int e = 0; e < numKernelEntries; e++)
                spatialKernel[e].factor = spatialKernel[e].factor / sum;
            // Kept: the fine sum runs over the fine kernel's entries but the
            // division over numKernelEntries of them. A gauss-only pass never
            // uses the fine kernel.
            float fineSum = 0.0f;
            for (int e = 0; e < numFineKernelEntries; e++)
                fineSum = fineSum + spatialKernelFine[e].factor;
            for (int e = 0; e < numKernelEntries; e++)
                spatialKernelFine[e].factor = spatialKernelFine[e].factor / fineSum;
        }

        {
            LevelPassArgs args;
            args.img = &img;
            args.filterImg = filterImg;
            args.filterSpp = filterSpp;
            args.filterBps = filterBps;
            args.filterRowStride = filterRowStride;
            args.filterExtendedRowStride = filterExtendedRowStride;
            args.imgOutput = imgOutput;
            args.smoothImg = smoothImg;
            args.spatialKernel = spatialKernel;
            args.numKernelEntries = numKernelEntries;
            args.spatialKernelFine = spatialKernelFine;
            args.numFineKernelEntries = numFineKernelEntries;
            args.expLut = expLut;
            args.logLut = logLut;
            args.unLogLut = nullptr;
            args.rgbeExpLut = rgbeExpLut;
            args.brightImage = brightImage;
            args.spp = spp;
            args.bps = bps;
            args.byteDepth = byteDepth;
            args.rowStride = rowStride;
            args.rowStrideBytes = rowStrideBytes;
            args.iMax = iMax;
            args.jMax = jMax;
            args.physicalKernelSize = physicalKernelSize;
            args.halfKernelSize = halfKernelSize;
            args.kernelStep = kernelStep;
            args.largestHalfKernelSize = largestHalfKernelSize;
            args.largestPhysicalKernelSize = largestPhysicalKernelSize;
            args.levelGaussOnly = levelGaussOnly;
            args.level = level;
            args.rangeKernelSigma = rangeKernelSigma;
            args.extendedRowStride = extendedRowStride;
            args.imageHasBorder = imageHasBorder;
            if (levelPass(nbProc, args) != 0) goto outOfMemory;
        }

        // The tower holds the smoothed filter result.
        std::memcpy(imgOutput, smoothImg, imageBytes);

        if (outDiffTower != nullptr && outDiffTower[level - 1] != nullptr) {
            unsigned char *diff = outDiffTower[level - 1];
            if (bps == 8) {
                // Vectorised whatever the optimiser's cost model says; each
                // sample stands alone, so the result is the same. The input
                // pointer is read once: byte stores could otherwise alias it.
                const unsigned char *in = img.inputImage;
#pragma omp simd
                for (int k = 0; k < imageStride; k++) {
                    const int val = in[k] - imgOutput[k] + 128;
                    diff[k] = (unsigned char)std::clamp(val, 0, 255);
                }
            } else {
                // Kept: both samples are read as signed, so one above 32767
                // counts as negative.
                const int16_t *in16 = reinterpret_cast<const int16_t *>(img.inputImage);
                const int16_t *out16 = reinterpret_cast<const int16_t *>(imgOutput);
                uint16_t *diff16 = reinterpret_cast<uint16_t *>(diff);
                for (int k = 0; k < imageStride; k++) {
                    const int val = in16[k] - out16[k] + 32768;
                    diff16[k] = (uint16_t)std::clamp(val, 0, 65535);
                }
            }
        }

        if (dbgTestImage) {
            std::snprintf(name, sizeof name, "mask-after-%d-lev%d.jpg", __k, level);
            saveTestImage(name, iMax, jMax, spp, bps, imgOutput);
        }

        // The next level works out its own kernel widths, so nothing of this
        // level's sizes carries over.
        freeOutsideImageBorders(&img);
    }

    if (outImage != nullptr) std::memcpy(outImage, images[numLevels], imageBytes);
    // Deliberate: the result is the level counter, numLevels + 1 after a
    // full run.
    retour = level;
    goto cleanup;

outOfMemory:
    retour = -4;
cleanup:
    freeOutsideImageBorders(&img);
    release(images);
    release(spatialKernel);
    release(spatialKernelFine);
    release(expLut);
    release(logLut);
    release(smoothImg);
    release(defaultAccFactors);
    release(defaultHighAccFactors);
    return retour;
}

}  // namespace lumora
