// One level of the pyramid on a thread team: every pixel gets its own
// bilateral kernel and is convolved with it, then the team smooths the level.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/switches.h"
#include "filter/filter.h"
#include "filter/level_pass_device.h"

namespace lumora {

// Pixel (i, j) of an 8-bit level. The window's top-left sample and the
// strides depend on whether the working image carries its border (it always
// does when the pyramid calls; the other addressing serves the unbordered
// mode below).
void filterPixel8(const LevelPassArgs &a, int i, int j, int externalBorderSpace,
                  KernelEntry *bilateralKernel) {
    const bool bordered = a.imageHasBorder != 0;
    const int inStride = bordered ? a.extendedRowStride : a.rowStride;
    const int filterStride = bordered ? a.filterExtendedRowStride : a.filterRowStride;
    unsigned char *window =
        bordered ? a.img->image + (size_t)j * a.extendedRowStride + (size_t)i * a.spp
                 : a.img->image + (size_t)(j - externalBorderSpace) * a.rowStride +
                       (size_t)(i - externalBorderSpace) * a.spp;
    unsigned char *out = a.imgOutput + (size_t)j * a.rowStride + (size_t)i * a.spp;

    if (a.levelGaussOnly) {
        convolveFastSimple8(window, out, a.spp, inStride, a.logLut, a.unLogLut,
                            a.numKernelEntries, a.spatialKernel);
        return;
    }

    // The first level is never steered by the bright map.
    const int bright = levelUsesBrightMap(a) ? a.brightImage[(size_t)j * a.iMax + i] : 1;
    const KernelChoice choice = chooseKernel(bright, i, j);

    if (choice == KernelChoice::Copy) {
        const unsigned char *self = window + (size_t)a.largestHalfKernelSize * inStride +
                                    (size_t)a.largestHalfKernelSize * a.spp;
        std::memcpy(out, self, a.spp);
        return;
    }

    const bool fine = choice == KernelChoice::Fine;
    const int n = fine ? a.numFineKernelEntries : a.numKernelEntries;
    KernelEntry *kernel = fine ? a.spatialKernelFine : a.spatialKernel;
    // The window size is the larger of the two kernels', whichever is used.
    fusion2f(a.iMax, a.jMax, a.filterSpp, a.filterBps, filterStride, a.filterImg, a.expLut,
             a.logLut, a.rgbeExpLut, i, j, a.largestPhysicalKernelSize, a.rangeKernelSigma, n,
             kernel, bilateralKernel);
    convolveFastSimple8(window, out, a.spp, inStride, a.logLut, a.unLogLut, n, bilateralKernel);
}

namespace {

// Unreachable from the fusion driver, which passes 8-bit data with the
// border built in: the 16-bit rows and the frame of an unbordered image
// below are kept for callers that pass other images.

// Pixel (i, j) of a 16-bit level: normal kernel only, no bright map.
void filterPixel16(const LevelPassArgs &a, int i, int j, KernelEntry *bilateralKernel) {
    // Kept: the window is addressed with the plain rowStride although the
    // copy is bordered, and fusion2f gets the strides the other way round
    // from the 8-bit loop.
    unsigned short *window = reinterpret_cast<unsigned short *>(a.img->image) +
                             (size_t)(j - a.halfKernelSize) * a.rowStride +
                             (size_t)(i - a.halfKernelSize) * a.spp;
    unsigned short *out = reinterpret_cast<unsigned short *>(a.imgOutput) +
                          (size_t)j * a.rowStride + (size_t)i * a.spp;

    if (a.levelGaussOnly) {
        convolveFastSimple16(window, out, a.spp, a.rowStride, a.logLut, a.unLogLut,
                             a.numKernelEntries, a.spatialKernel, a.physicalKernelSize);
        return;
    }
    const int stride = a.imageHasBorder ? a.rowStride : a.extendedRowStride;
    fusion2f(a.iMax, a.jMax, a.spp, a.bps, stride, a.img, a.expLut, a.logLut, a.rgbeExpLut, i,
             j, a.physicalKernelSize, a.rangeKernelSigma, a.numKernelEntries, a.spatialKernel,
             bilateralKernel);
    convolveFastSimple16(window, out, a.spp, a.rowStride, a.logLut, a.unLogLut,
                         a.numKernelEntries, bilateralKernel, a.physicalKernelSize);
}

// Pixel (i, j) of the frame of an image without built-in border: addressed
// through imageData, never copied, fine kernel only above 200.
void filterEdgePixel(const LevelPassArgs &a, int i, int j, KernelEntry *bilateralKernel) {
    unsigned char *out =
        a.imgOutput + (size_t)j * a.rowStrideBytes + (size_t)i * a.spp * a.byteDepth;

    if (a.levelGaussOnly) {
        convolveFastIncludingEdges(a.img, out, a.iMax, a.jMax, a.spp, a.bps, a.rowStride,
                                   a.logLut, i, j, a.numKernelEntries, a.spatialKernel,
                                   a.largestPhysicalKernelSize);
        return;
    }
    const int bright = levelUsesBrightMap(a) ? a.brightImage[(size_t)j * a.iMax + i] : 0;
    const bool fine = bright > 200;
    const int n = fine ? a.numFineKernelEntries : a.numKernelEntries;
    KernelEntry *kernel = fine ? a.spatialKernelFine : a.spatialKernel;
    fusion2f(a.iMax, a.jMax, a.filterSpp, a.filterBps, a.filterRowStride, a.filterImg,
             a.expLut, a.logLut, a.rgbeExpLut, i, j, a.largestPhysicalKernelSize,
             a.rangeKernelSigma, n, kernel, bilateralKernel);
    convolveFastIncludingEdges(a.img, out, a.iMax, a.jMax, a.spp, a.bps, a.rowStride,
                               a.logLut, i, j, n, bilateralKernel, a.largestPhysicalKernelSize);
}

// The plain rows of the level, shared out by the team.
void plainRows(const LevelPassArgs &a, KernelEntry *bilateralKernel) {
    const int externalBorderSpace = a.imageHasBorder ? 0 : a.largestHalfKernelSize;
    if (a.bps == 8) {
#pragma omp for schedule(dynamic, 1) nowait
        for (int j = externalBorderSpace; j < a.jMax - externalBorderSpace; j++)
            for (int i = externalBorderSpace; i < a.iMax - externalBorderSpace; i++)
                filterPixel8(a, i, j, externalBorderSpace, bilateralKernel);
    } else {
        // Kept: pixels closer than halfKernelSize to an edge are not written.
#pragma omp for schedule(dynamic, 1) nowait
        for (int j = a.halfKernelSize; j < a.jMax - a.halfKernelSize; j++)
            for (int i = a.halfKernelSize; i < a.iMax - a.halfKernelSize; i++)
                filterPixel16(a, i, j, bilateralKernel);
    }
    if (a.imageHasBorder) return;
    const int e = externalBorderSpace;
    // Top and bottom strips, column by column.
#pragma omp for schedule(dynamic, 1) nowait
    for (int i = 0; i < a.iMax; i++) {
        for (int j = 0; j < e; j++) filterEdgePixel(a, i, j, bilateralKernel);
        for (int j = a.jMax - e; j < a.jMax; j++) filterEdgePixel(a, i, j, bilateralKernel);
    }
    // Left and right strips of the remaining rows.
#pragma omp for schedule(dynamic, 1) nowait
    for (int j = e; j < a.jMax - e; j++) {
        for (int i = 0; i < e; i++) filterEdgePixel(a, i, j, bilateralKernel);
        for (int i = a.iMax - e; i < a.iMax; i++) filterEdgePixel(a, i, j, bilateralKernel);
    }
}

// The SIMD rows of the level, band by band: the team loads the rows a band
// adds to the planes together, then shares out its rows.
void simdRows(const simd::LevelPlan &plan, int jMax, KernelEntry *bilateralKernel) {
    const int t = omp_get_thread_num();
    const int T = omp_get_num_threads();
    const int band = simd::bandRows(plan);
    for (int j0 = 0; j0 < jMax; j0 += band) {
        if (simd::loadsBands(plan)) {
            simd::loadBand(plan, j0, t, T);
#pragma omp barrier
        }
        // The loop's closing barrier keeps the planes until every row of
        // the band is done.
        const int j1 = std::min(j0 + band, jMax);
#pragma omp for schedule(dynamic, 1)
        for (int j = j0; j < j1; j++) simd::filterRow(plan, j, t, bilateralKernel);
    }
}

}  // namespace

LevelPassArgs selfGuidedLevel(ImageWithBorder &img, int iMax, int jMax, int spp, int b,
                              std::vector<KernelEntry> &normal, std::vector<KernelEntry> &fine,
                              float *expLut, unsigned char *map) {
    LevelPassArgs a{};
    a.img = a.filterImg = &img;
    a.filterSpp = a.spp = spp;
    a.filterBps = a.bps = 8;
    a.byteDepth = 1;
    a.filterRowStride = a.rowStride = a.rowStrideBytes = iMax * spp;
    a.filterExtendedRowStride = a.extendedRowStride = (iMax + 2 * b) * spp;
    a.spatialKernel = normal.data();
    a.numKernelEntries = (int)normal.size();
    a.spatialKernelFine = fine.data();
    a.numFineKernelEntries = (int)fine.size();
    a.expLut = expLut;
    a.brightImage = map;
    a.iMax = iMax;
    a.jMax = jMax;
    a.physicalKernelSize = a.largestPhysicalKernelSize = 2 * b + 1;
    a.halfKernelSize = a.largestHalfKernelSize = b;
    a.level = 1;
    a.imageHasBorder = 1;
    return a;
}

int levelPass(int nbProc, const LevelPassArgs &a) {
    // On an OpenCL device, when one is chosen and covers the level: the
    // same bytes, smoothed here.
    if (!usePlainPath && device::levelRows(a, nbProc)) {
        if (a.level > 0) {
#pragma omp parallel num_threads(nbProc)
            smoothImage3x3(a.imgOutput, a.iMax, a.jMax, a.spp, a.bps, a.smoothImg);
        }
        return 0;
    }
    // Null (the plain rows) when the SIMD path does not cover the level or
    // is short of memory: both give the same bytes.
    simd::LevelPlan *plan = usePlainPath ? nullptr : simd::planLevel(nbProc, a);
    // Set by any thread that could not get its kernel buffer.
    std::atomic<bool> shortOfMemory{false};
#pragma omp parallel num_threads(nbProc)
    {
        // Every thread builds its pixels' kernels in its own buffer. With rows
        // handed out dynamically a thread cannot leave its share to the others,
        // so when any thread is refused its buffer, the whole team skips the
        // pass together and the pyramid gives up as for its own buffers.
        const size_t capacity = (size_t)std::max(a.numKernelEntries, a.numFineKernelEntries);
        KernelEntry *bilateralKernel = static_cast<KernelEntry *>(
            allocate(std::max<size_t>(capacity, 1) * sizeof(KernelEntry)));
        if (bilateralKernel == nullptr) shortOfMemory.store(true);
#pragma omp barrier
        if (shortOfMemory.load()) {
            release(bilateralKernel);
        } else {
            if (plan != nullptr)
                simdRows(*plan, a.jMax, bilateralKernel);
            else
                plainRows(a, bilateralKernel);
            release(bilateralKernel);
#pragma omp barrier
            // Every member calls the smoothing, which shares its rows among them.
            if (a.level > 0)
                smoothImage3x3(a.imgOutput, a.iMax, a.jMax, a.spp, a.bps, a.smoothImg);
#pragma omp barrier
        }
    }
    simd::releaseLevelPlan(plan);
    return shortOfMemory.load() ? -4 : 0;
}

}  // namespace lumora
