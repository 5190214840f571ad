// Level pyramid: a tower of ever smoother full-resolution versions of an
// image, and optionally the tower of differences between neighbouring levels.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag/diag.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

namespace lumora {
namespace {

// Sizes and sigmas of one pyramid call, the same on every level.
struct PyramidConstants {
    int iMax;
    int jMax;
    int spp;
    int bps;
    int byteDepth;
    int rowStride;       // samples
    int rowStrideBytes;
    int imageStride;     // samples
    size_t imageBytes;
    int maxVal;
    int largestKernelSize;  // the window handed to the kernel builders on every level
    float spatialKernelSigma;
    float kernelSizeMult;
    float rangeKernelSigma;
};

PyramidConstants pyramidConstants(int iMax, int jMax, int spp, int bps, float kernelSizeMult,
                                  float sigmaSpatial, float sigmaRange) {
    PyramidConstants s{};
    s.iMax = iMax;
    s.jMax = jMax;
    s.spp = spp;
    s.bps = bps;
    s.byteDepth = bps / 8;
    s.rowStride = iMax * spp;
    s.rowStrideBytes = s.rowStride * s.byteDepth;
    s.imageStride = s.rowStride * jMax;
    s.imageBytes = (size_t)s.imageStride * s.byteDepth;
    s.maxVal = (1 << bps) - 1;
    s.largestKernelSize = std::min(2999, std::min(iMax, jMax));
    s.spatialKernelSigma = (float)(sigmaSpatial * 1.7320508075688772);
    s.kernelSizeMult = kernelSizeMult;
    s.rangeKernelSigma = sigmaRange;
    return s;
}

// Everything fusion2a makes for itself. It writes only into the caller's
// towers; all of this is released when the workspace goes, on every exit.
struct PyramidWorkspace {
    PyramidWorkspace() = default;
    PyramidWorkspace(const PyramidWorkspace &) = delete;
    PyramidWorkspace &operator=(const PyramidWorkspace &) = delete;
    ~PyramidWorkspace();

    bool chooseFactors(int numLevels, int *accuracyFactorsIn, int *highAccuracyFactorsIn);
    bool makeTables(const PyramidConstants &s);
    bool makeKernels(const PyramidConstants &s, int numLevels);
    bool makeImages(int numLevels, unsigned char *inImage, unsigned char **outImageTower);

    ImageWithBorder img;  // the level's bordered working copy; empty between levels
    int *accFactors = nullptr;      // the caller's or the defaults below; not owned
    int *highAccFactors = nullptr;  // likewise
    int *defaultAccFactors = nullptr;
    int *defaultHighAccFactors = nullptr;
    float rgbeExpLut[RGBE_EXP_LUT_ENTRIES];
    float *expLut = nullptr;
    float *logLut = nullptr;
    unsigned char *smoothImg = nullptr;
    KernelEntry *spatialKernel = nullptr;
    KernelEntry *spatialKernelFine = nullptr;
    unsigned char **images = nullptr;  // the input, then the caller's tower
};

PyramidWorkspace::~PyramidWorkspace() {
    freeOutsideImageBorders(&img);  // harmless when already freed
    release(images);
    release(spatialKernel);
    release(spatialKernelFine);
    release(expLut);
    release(logLut);
    release(smoothImg);
    release(defaultAccFactors);
    release(defaultHighAccFactors);
}

// The caller's accuracy factors, or numLevels copies of the defaults.
bool PyramidWorkspace::chooseFactors(int numLevels, int *accuracyFactorsIn,
                                     int *highAccuracyFactorsIn) {
    const int levelSlots = std::max(numLevels, 1);
    accFactors = accuracyFactorsIn;
    highAccFactors = highAccuracyFactorsIn;
    if (accFactors == nullptr) {
        defaultAccFactors = static_cast<int *>(allocate(levelSlots * sizeof(int)));
        if (defaultAccFactors == nullptr) return false;
        for (int l = 0; l < numLevels; l++) defaultAccFactors[l] = SPATIAL_KERNEL_APPROX_DEFAULT;
        accFactors = defaultAccFactors;
    }
    if (highAccFactors == nullptr) {
        defaultHighAccFactors = static_cast<int *>(allocate(levelSlots * sizeof(int)));
        if (defaultHighAccFactors == nullptr) return false;
        for (int l = 0; l < numLevels; l++) defaultHighAccFactors[l] = SPATIAL_KERNEL_APPROX_FINE;
        highAccFactors = defaultHighAccFactors;
    }
    return true;
}

bool PyramidWorkspace::makeTables(const PyramidConstants &s) {
    // The colour distance reads the CIELab table: a table that could not be
    // allocated counts as a buffer of ours that could not be.
    if (s.spp == 3 && s.bps == 8 && labLUT == nullptr) return false;
    makeRgbeExpLut(rgbeExpLut);
    expLut = static_cast<float *>(allocate(fusion2luts(s.maxVal) * sizeof(float)));
    // logLut is handed down and never read; it lives on the heap with expLut
    // rather than taking 256 KB of the caller's stack. unLogLut is reserved
    // and read by nothing, so none is made.
    logLut = static_cast<float *>(allocate(LOG_LUT_ENTRIES * sizeof(float)));
    if (expLut == nullptr || logLut == nullptr) return false;
    makeLogLUT(logLut);
    // Zero-filled so that what the 16-bit smoothing leaves unwritten is
    // defined.
    smoothImg = static_cast<unsigned char *>(allocateZeroed(std::max<size_t>(s.imageBytes, 1), 1));
    return smoothImg != nullptr;
}

// One allocation per kernel, large enough for every level and accuracy.
bool PyramidWorkspace::makeKernels(const PyramidConstants &s, int numLevels) {
    int numKernelEntries = 0;
    for (int l = 1; l <= numLevels; l++) {
        const int fine = fastSpatialKernelNumEntries(s.largestKernelSize, s.spatialKernelSigma,
                                                     s.kernelSizeMult, l - 1, highAccFactors);
        const int normal = fastSpatialKernelNumEntries(s.largestKernelSize, s.spatialKernelSigma,
                                                       s.kernelSizeMult, l - 1, accFactors);
        numKernelEntries = std::max(numKernelEntries, std::max(fine, normal));
    }
    // Zero-filled: a gauss-only level divides numKernelEntries fine entries,
    // which can be more than the fine kernel holds.
    spatialKernel = static_cast<KernelEntry *>(
        allocateZeroed(std::max(numKernelEntries, 1), sizeof(KernelEntry)));
    spatialKernelFine = static_cast<KernelEntry *>(
        allocateZeroed(std::max(numKernelEntries, 1), sizeof(KernelEntry)));
    return spatialKernel != nullptr && spatialKernelFine != nullptr;
}

// images[0] is the input, images[l] the caller's tower image of level l.
bool PyramidWorkspace::makeImages(int numLevels, unsigned char *inImage,
                                  unsigned char **outImageTower) {
    images = static_cast<unsigned char **>(allocateZeroed(numLevels + 1, sizeof(unsigned char *)));
    if (images == nullptr) return false;
    images[0] = inImage;
    for (int l = 1; l <= numLevels; l++) images[l] = outImageTower[l - 1];
    return true;
}

// The kernels of one level and the sizes that follow from them.
struct LevelKernels {
    int numKernelEntries;
    int numFineKernelEntries;
    float kernelSize;  // width of the normal kernel
    int halfKernelSize;
    int fineKernelSize;
    int largestHalfKernelSize;
    int physicalKernelSize;
    int physicalFineKernelSize;
    int largestPhysicalKernelSize;
    int borderSpace;
};

// Builds both kernels of a level, normal before fine: both draw from
// rand(). Their widths come from the first and last entries, which sit in
// opposite corners of each kernel's window; this replaces the kernelSize the
// caller passed (and the previous level's).
LevelKernels buildLevelKernels(const PyramidConstants &s, PyramidWorkspace &ws, int level) {
    LevelKernels k{};
    k.numKernelEntries = fastSpatialKernelNumEntries(s.largestKernelSize, s.spatialKernelSigma,
                                                     s.kernelSizeMult, level - 1, ws.accFactors);
    if (debugMain) std::fprintf(stderr, "NUMKERNELENTRIES=%d\n", k.numKernelEntries);
    makeFastSpatialKernel(s.largestKernelSize, s.spatialKernelSigma, s.kernelSizeMult, level - 1,
                          ws.accFactors, ws.spatialKernel);
    k.numFineKernelEntries = fastSpatialKernelNumEntries(
        s.largestKernelSize, s.spatialKernelSigma, s.kernelSizeMult, level - 1, ws.highAccFactors);
    if (debugMain) std::fprintf(stderr, "NUMFINEKERNELENTRIES=%d\n", k.numFineKernelEntries);
    makeFastSpatialKernel(s.largestKernelSize, s.spatialKernelSigma, s.kernelSizeMult, level - 1,
                          ws.highAccFactors, ws.spatialKernelFine);

    const KernelEntry *normal = ws.spatialKernel;
    const KernelEntry *fine = ws.spatialKernelFine;
    k.kernelSize = (float)(normal[k.numKernelEntries - 1].xpos - normal[0].xpos + 1);
    k.halfKernelSize = (int)(k.kernelSize / 2.0f);
    k.fineKernelSize = fine[k.numFineKernelEntries - 1].xpos - fine[0].xpos + 1;
    k.largestHalfKernelSize = std::max(k.halfKernelSize, k.fineKernelSize / 2);
    return k;
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

// Gives both kernels one window origin and one centre: the narrower one
// moves onto the wider one's middle entry.
void centreKernels(PyramidWorkspace &ws, const LevelKernels &k) {
    const KernelEntry &mid = ws.spatialKernel[k.numKernelEntries / 2];
    const KernelEntry &fineMid = ws.spatialKernelFine[k.numFineKernelEntries / 2];
    const int dx = mid.xpos - fineMid.xpos;
    const int dy = mid.ypos - fineMid.ypos;
    if (k.kernelSize > k.fineKernelSize)
        shiftKernel(ws.spatialKernelFine, k.numFineKernelEntries, dx, dy);
    else if (k.fineKernelSize > k.kernelSize)
        shiftKernel(ws.spatialKernel, k.numKernelEntries, -dx, -dy);
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

// Window sizes within the image, and the border they need. Kept: the normal
// kernel is clamped by the height only.
void physicalSizes(const PyramidConstants &s, LevelKernels &k) {
    if (k.fineKernelSize >= s.iMax) k.fineKernelSize = s.iMax - 1;
    if (k.fineKernelSize >= s.jMax) k.fineKernelSize = s.jMax - 1;
    k.physicalFineKernelSize = physicalSize((float)k.fineKernelSize);
    if (k.kernelSize >= s.jMax) k.kernelSize = (float)(s.jMax - 1);
    k.physicalKernelSize = physicalSize(k.kernelSize);
    k.largestPhysicalKernelSize = std::max(k.physicalKernelSize, k.physicalFineKernelSize);
    k.borderSpace = std::max(k.physicalFineKernelSize / 2, k.physicalKernelSize / 2);
}

// A gauss-only level divides each kernel's factors by their sum. Kept: the
// fine sum runs over the fine kernel's entries but the division over
// numKernelEntries of them. A gauss-only pass never uses the fine kernel.
void normaliseGaussKernels(PyramidWorkspace &ws, const LevelKernels &k) {
    KernelEntry *normal = ws.spatialKernel;
    KernelEntry *fine = ws.spatialKernelFine;
    float sum = 0.0f;
    for (int e = 0; e < k.numKernelEntries; e++) sum = sum + normal[e].factor;
    for (int e = 0; e < k.numKernelEntries; e++) normal[e].factor = normal[e].factor / sum;
    float fineSum = 0.0f;
    for (int e = 0; e < k.numFineKernelEntries; e++) fineSum = fineSum + fine[e].factor;
    for (int e = 0; e < k.numKernelEntries; e++) fine[e].factor = fine[e].factor / fineSum;
}

// What the level pass reads. Every level is guided by its own input, with
// the image's own format.
LevelPassArgs levelPassArgs(const PyramidConstants &s, PyramidWorkspace &ws,
                            const LevelKernels &k, unsigned char *imgOutput,
                            unsigned char *brightImage, int levelGaussOnly, int level) {
    const int filterSpp = s.spp;
    const int filterBps = s.bps;
    const int widthWithBorders = s.iMax + 2 * k.borderSpace;
    LevelPassArgs args{};
    args.img = &ws.img;
    args.filterImg = &ws.img;
    args.filterSpp = filterSpp;
    args.filterBps = filterBps;
    args.filterRowStride = s.rowStride;
    args.filterExtendedRowStride =
        filterBps == 32 ? widthWithBorders * 4 : widthWithBorders * filterSpp;
    args.imgOutput = imgOutput;
    args.smoothImg = ws.smoothImg;
    args.spatialKernel = ws.spatialKernel;
    args.numKernelEntries = k.numKernelEntries;
    args.spatialKernelFine = ws.spatialKernelFine;
    args.numFineKernelEntries = k.numFineKernelEntries;
    args.expLut = ws.expLut;
    args.logLut = ws.logLut;
    args.unLogLut = nullptr;
    args.rgbeExpLut = ws.rgbeExpLut;
    args.brightImage = brightImage;
    args.spp = s.spp;
    args.bps = s.bps;
    args.byteDepth = s.byteDepth;
    args.rowStride = s.rowStride;
    args.rowStrideBytes = s.rowStrideBytes;
    args.iMax = s.iMax;
    args.jMax = s.jMax;
    args.physicalKernelSize = k.physicalKernelSize;
    args.halfKernelSize = k.halfKernelSize;
    args.largestHalfKernelSize = k.largestHalfKernelSize;
    args.largestPhysicalKernelSize = k.largestPhysicalKernelSize;
    args.levelGaussOnly = levelGaussOnly;
    args.level = level;
    args.rangeKernelSigma = s.rangeKernelSigma;
    args.extendedRowStride = widthWithBorders * s.spp;
    args.imageHasBorder = ws.img.mainImageHasBorders;
    return args;
}

// The level's input minus its output, plus the middle value, clamped.
void writeDiff(const PyramidConstants &s, const unsigned char *input,
               const unsigned char *imgOutput, unsigned char *diff) {
    if (s.bps == 8) {
        // Vectorised whatever the optimiser's cost model says; each sample
        // stands alone, so the result is the same. The input pointer is a
        // parameter, read once: byte stores could otherwise alias it.
#pragma omp simd
        for (int k = 0; k < s.imageStride; k++) {
            const int val = input[k] - imgOutput[k] + 128;
            diff[k] = (unsigned char)std::clamp(val, 0, 255);
        }
    } else {
        // Kept: both samples are read as signed, so one above 32767 counts
        // as negative.
        const int16_t *in16 = reinterpret_cast<const int16_t *>(input);
        const int16_t *out16 = reinterpret_cast<const int16_t *>(imgOutput);
        uint16_t *diff16 = reinterpret_cast<uint16_t *>(diff);
        for (int k = 0; k < s.imageStride; k++) {
            const int val = in16[k] - out16[k] + 32768;
            diff16[k] = (uint16_t)std::clamp(val, 0, 65535);
        }
    }
}

// One level: images[level - 1] filtered into images[level] and, when asked,
// its diff. False when a buffer could not be made.
bool filterLevel(int nbProc, const PyramidConstants &s, PyramidWorkspace &ws, int level,
                 int gaussOnly, unsigned char *brightImage, unsigned char **outDiffTower) {
    const int levelGaussOnly = gaussOnly;
    unsigned char *imgInput = ws.images[level - 1];
    unsigned char *imgOutput = ws.images[level];
    __level = level;
    dumpLevelInput(s.iMax, s.jMax, s.spp, s.bps, imgInput);

    LevelKernels k = buildLevelKernels(s, ws, level);
    centreKernels(ws, k);
    physicalSizes(s, k);

    // The working image always gets outside borders; their width is half the
    // largest physical kernel, which the colour-distance filter relies on.
    ws.img.inputImage = imgInput;
    ws.img.borderWidth = k.borderSpace;
    ws.img.mainImageHasBorders = 1;
    if (createOutsideImageBorders(s.iMax, s.jMax, s.spp, s.bps, &ws.img, nbProc) == -4)
        return false;
    dumpLevelWorkingImage(s.iMax, s.jMax, s.spp, s.bps, &ws.img, level);

    // Rebuilt on every level with the same sigma.
    fusion2lut(s.rangeKernelSigma, s.maxVal, ws.expLut);
    if (levelGaussOnly) normaliseGaussKernels(ws, k);
    if (levelPass(nbProc, levelPassArgs(s, ws, k, imgOutput, brightImage, levelGaussOnly,
                                        level)) != 0)
        return false;

    // The tower holds the smoothed filter result.
    std::memcpy(imgOutput, ws.smoothImg, s.imageBytes);
    if (outDiffTower != nullptr && outDiffTower[level - 1] != nullptr)
        writeDiff(s, ws.img.inputImage, imgOutput, outDiffTower[level - 1]);
    dumpLevelOutput(s.iMax, s.jMax, s.spp, s.bps, imgOutput, level);

    // The next level works out its own kernel widths, so nothing of this
    // level's sizes carries over.
    freeOutsideImageBorders(&ws.img);
    return true;
}

}  // namespace

int fusion2a(int nbProc, int numLevels, float kernelSize, float kernelSizeMult,
             float sigmaSpatial, float sigmaRange, int gaussOnly, int iMax, int jMax,
             const int spp, int bps, unsigned char *inImage, const int crossSpp,
             const int crossBps, unsigned char *crossFilter, unsigned char *brightImage,
             int *accuracyFactorsIn, int *highAccuracyFactorsIn, unsigned char **outDiffTower,
             unsigned char **outImageTower, unsigned char *outImage) {
    // Every level replaces the kernel size by its own kernel's width, so the
    // size passed in has no effect.
    (void)kernelSize;
    // The cross-filter guide is accepted and deliberately ignored; only its
    // row stride is worked out.
    [[maybe_unused]] const int crossRowStride = crossBps == 32 ? iMax * 4 : iMax * crossSpp;
    (void)crossFilter;

    const PyramidConstants s =
        pyramidConstants(iMax, jMax, spp, bps, kernelSizeMult, sigmaSpatial, sigmaRange);
    PyramidWorkspace ws;
    if (!ws.chooseFactors(numLevels, accuracyFactorsIn, highAccuracyFactorsIn) ||
        !ws.makeTables(s) || !ws.makeKernels(s, numLevels) ||
        !ws.makeImages(numLevels, inImage, outImageTower))
        return -4;

    int level;
    for (level = 1; level <= numLevels; level++)
        if (!filterLevel(nbProc, s, ws, level, gaussOnly, brightImage, outDiffTower)) return -4;

    if (outImage != nullptr) std::memcpy(outImage, ws.images[numLevels], s.imageBytes);
    // Deliberate: the result is the level counter, numLevels + 1 after a
    // full run.
    return level;
}

}  // namespace lumora
