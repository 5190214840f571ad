// Per-pixel reconstruction: blends the smoothed base and the sharpened detail
// levels of every source image with their weights, adjusts saturation through
// the host's HSL conversion and writes the output rows.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <omp.h>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"

namespace lumora {

// Row j's level entries, e = blendEntry(lev, k): the samples that enter the
// sum (the coarsest smoothed image, then the detail images), the samples the
// weights are judged by, and the level's weight plane, each at the row's
// first pixel.
void reconstructionRowEntries(const ReconstructionArgs &a, int j, unsigned char **images,
                              unsigned char **smoothed, unsigned char **poids) {
    const int kMax = a.kMax;
    const int numLevels = a.numLevels;
    const size_t imageBytes = a.imageStride * a.byteDepthBpsIn;
    const size_t planeBytes = a.poidsImageStride * a.byteDepthPoids;
    const size_t poidsPosit = (size_t)a.iMax * j * a.byteDepthPoids;
    const size_t positIn = (size_t)a.iMax * j * a.spp * a.byteDepthBpsIn;
    for (int lev = numLevels; lev >= 0; lev--) {
        for (int k = 0; k < kMax; k++) {
            const int e = blendEntry(lev, k, numLevels, kMax);
            unsigned char *image;
            unsigned char *judged;
            if (lev == numLevels) {
                image = judged = a.outputImageTower[towerSlot(k, numLevels - 1, numLevels)];
            } else if (lev > 0) {
                image = a.outputImageDiffTower[towerSlot(k, lev, numLevels)];
                judged = a.outputImageTower[towerSlot(k, lev - 1, numLevels)];
            } else {
                image = a.outputImageDiffTower[towerSlot(k, 0, numLevels)];
                if (a.fusionPreserveHighlights)
                    judged = k == 0 ? a.fusedResult : a.imagesBuffer;
                else
                    judged = a.imagesBuffer + k * imageBytes;
            }
            images[e] = image + positIn;
            smoothed[e] = judged + positIn;
            poids[e] = a.poidsBuffer + weightPlaneOffset(lev, k, kMax, planeBytes) + poidsPosit;
        }
    }
}

void startRowView(const ReconstructionArgs &a, int j, RowView &row) {
    reconstructionRowEntries(a, j, row.images, row.smoothed, row.poids);
    if (a.fusionPreserveHighlights) {
        const size_t positIn = (size_t)a.iMax * j * 3;
        row.fused = a.fusedResult + positIn;
        row.dark = a.imagesBuffer + positIn;
    }
}

void buildReconTables(const ReconstructionArgs &a, ReconTables *t) {
    for (int b = 0; b < 256; b++) {
        t->detail[b] = sharpenedDetail(a, (float)b);
        t->factor1[b] = darkMergeFactor(a.darkMergeThreshold, b);
        t->factor2[b] = darkCutFactor(b);
    }
    t->mergeF = darkMergeBlend(a.darkMergeThreshold);
}

int darkMergeLuminance(int threshold, int smoothLum0, int luminance0) {
    if (threshold <= 139) return smoothLum0;
    if (threshold >= 170) return luminance0;
    const float f = darkMergeBlend(threshold);
    return (int)(smoothLum0 * (1 - f) + luminance0 * f);
}

float darkMergeFactor(int threshold, int darkMergeLum) {
    if (darkMergeLum > 254 || threshold <= 0) return 1.0f;
    const int lower = threshold;
    const float f = darkMergeLum < lower ? 0.0f : (darkMergeLum - lower) / (255.0f - lower);
    const float f4 = f * f * f * f;
    return (float)(1.0 - std::exp((double)(-10.0f * f4)));
}

float darkCutFactor(int darkCutLum) {
    if (darkCutLum > 99) return 1.0f;
    const float t = 1.0f - darkCutLum / 100.0f;
    return 1.0f - t * t;
}

void darkImageReduction(int threshold, const unsigned char *fused, const unsigned char *dark,
                        const unsigned char *smooth0, const unsigned char *smooth1, int i, int j,
                        float *poidsLev) {
    const int luminance0 = pixelLuminance(fused);
    const int luminance1 = pixelLuminance(dark);
    const int smoothLum0 = pixelLuminance(smooth0);
    const int darkCutLum = pixelLuminance(smooth1);
    const float factor1 = darkMergeFactor(threshold, darkMergeLuminance(threshold, smoothLum0, luminance0));
    const float factor2 = darkCutFactor(darkCutLum);

    if (poidsLev[0] == 0.0f && poidsLev[1] == 0.0f) {
        // Kept: the labels name the two luminances one off.
        std::fprintf(stderr, "i=%d j=%d factor1=%f factor2=%f luminance1=%d luminance2=%d\n", i,
                     j, factor1, factor2, luminance0, luminance1);
        std::abort();
    }

    poidsLev[1] *= factor1 < factor2 ? factor1 : factor2;
    // Deliberate: sequential renormalisation, the second division sees the
    // new poidsLev[0].
    poidsLev[0] = poidsLev[0] / (poidsLev[0] + poidsLev[1]);
    poidsLev[1] = poidsLev[1] / (poidsLev[1] + poidsLev[0]);
}

void checkLevelWeights(int kMax, const float *poidsLev) {
    bool bad = false;
    for (int k = 0; k < kMax; k++)
        if (!(poidsLev[k] <= 1.0f)) bad = true;  // NaN counts as bad
    if (bad) {
        for (int k = 0; k < kMax; k++) std::fprintf(stderr, "poidsLev[%d]=%f\n", k, poidsLev[k]);
        std::abort();
    }
    // A second guard, never reached after the report above.
    for (int k = 0; k < kMax; k++) BF_ASSERT_IN(poidsLev[k] <= 1.0f, "hx_fusion2");
}

void adjustSaturation(float satCoeff, float *fvals) {
    // The round trip runs for the neutral coefficient too; only a
    // coefficient of exactly 0 skips it.
    if (satCoeff == 0.0f) return;
    float hsl[3];
    frgb2hsl(fvals, hsl);
    hsl[1] *= satCoeff;
    if (hsl[1] > 1.0f) hsl[1] = 1.0f;
    fhsl2rgb(hsl, fvals);
}

// ---------------------------------------------------------------------------
// The per-pixel reference, in the phases the SIMD rows take a row at a time:
// every level's weights, the level blend, then saturation and the store.

void pixelWeights(const ReconstructionArgs &a, const RowView &row, int x, int j, float *w,
                  size_t stride) {
    const int kMax = a.kMax;
    const int bitDepthPoids = a.bitDepthPoids;  // named so that its check reads as written
    BF_ASSERT_IN(bitDepthPoids == 8, "hx_fusion2");
    float poidsLev[3];
    for (int lev = a.numLevels; lev >= 0; lev--) {
        const int base = blendEntry(lev, 0, a.numLevels, kMax);
        for (int k = 0; k < kMax; k++) poidsLev[k] = row.poids[base + k][x] / 255.0f;
        // The report names the pixel by its first sample's index in the row.
        if (a.fusionPreserveHighlights)
            darkImageReduction(a.darkMergeThreshold, row.fused + 3 * x, row.dark + 3 * x,
                               row.smoothed[base] + 3 * x, row.smoothed[base + 1] + 3 * x, 3 * x,
                               j, poidsLev);
        checkLevelWeights(kMax, poidsLev);
        for (int k = 0; k < kMax; k++) w[(size_t)(base + k) * stride] = poidsLev[k];
    }
}

void pixelBlend(const ReconstructionArgs &a, const ReconTables &t, const RowView &row,
                const float *w, size_t stride, int x, int j, float *acc, size_t accStride) {
    const int entries = (a.numLevels + 1) * a.kMax;
    for (int s = 0; s < 3; s++) {
        float fval = 0.0f;
        for (int e = 0; e < entries; e++) {
            const unsigned char b = row.images[e][3 * x + s];
            // The coarsest level enters as it is; a detail sharpened.
            const float imgVal = e < a.kMax ? (float)b : t.detail[b];
            fval += imgVal * w[(size_t)e * stride];
            if (dbgTestImage && (e + 1) % a.kMax == 0) {
                // The sum so far, after each level, for the level dumps.
                const int lev = a.numLevels - e / a.kMax;
                a.results[lev * a.imageStride + (size_t)a.iMax * j * 3 + 3 * x + s] =
                    (unsigned char)(int)fval;
            }
        }
        acc[s * accStride] = fval;
    }
    // The dumps show each weight plane as the blend used it.
    for (int e = 0; dbgTestImage && e < entries; e++) {
        const int v = (int)(w[(size_t)e * stride] * 256.0f);
        row.poids[e][x] = (unsigned char)(v < 255 ? v : 255);
    }
}

void finishPixel(const ReconstructionArgs &a, float *fvals, float *samples) {
    adjustSaturation(a.satCoeff, fvals);
    for (int s = 0; s < 3; s++) samples[s] = a.rgb2bgr ? fvals[2 - s] : fvals[s];
}

namespace {

// Rows [rowBegin, rowEnd) of the output through the reference, one pixel
// at a time: no buffer beyond a few values on the stack. Eight-bit input
// with three samples a pixel, as hx_fusion2 has asserted before any of this.
void reconstructRows(const ReconstructionArgs &a, int rowBegin, int rowEnd) {
    ReconTables t;
    buildReconTables(a, &t);
    unsigned char *images[MAX_BLEND_ENTRIES], *smoothed[MAX_BLEND_ENTRIES], *poids[MAX_BLEND_ENTRIES];
    RowView row{images, smoothed, poids};
    float w[MAX_BLEND_ENTRIES], acc[3], samples[3];
    for (int j = rowBegin; j < rowEnd; j++) {
        startRowView(a, j, row);
        unsigned char *out = a.resImage + (size_t)a.rowOut * j * a.byteDepthBpsOut;  // rowOut counts samples
        for (int x = 0; x < a.iMax; x++) {
            pixelWeights(a, row, x, j, w, 1);
            pixelBlend(a, t, row, w, 1, x, j, acc, 1);
            finishPixel(a, acc, samples);
            for (int s = 0; s < 3; s++, out += a.byteDepthBpsOut)
                storeReconstructedSample(samples[s], out, a.byteDepthBpsOut);
        }
    }
}

}  // namespace

void reconstruct(int nbProc, const ReconstructionArgs &args) {
#pragma omp parallel num_threads(nbProc)
    {
        int rowBegin, rowEnd;
        staticBlock(args.jMax, omp_get_thread_num(), omp_get_num_threads(), &rowBegin, &rowEnd);
        // Short of memory for its row buffers, the SIMD path leaves the rows
        // to the per-pixel code, which needs none and writes the same bytes.
        if (usePlainPath || !simd::reconstructionCovers(args) ||
            !simd::reconstructRows(args, rowBegin, rowEnd))
            reconstructRows(args, rowBegin, rowEnd);

#pragma omp barrier
        if (omp_get_thread_num() == 0 && dbgTestImage && args.bpsIn == 8) {
            char name[64];
            for (int lev = 0; lev <= args.numLevels; lev++) {
                std::snprintf(name, sizeof name, "image-bilateral-result-lev%d.jpg", lev);
                dbgSaveTestImage(name, args.iMax, args.jMax, args.spp, args.bpsIn,
                                 args.results + lev * args.imageStride);
                for (int k = 0; k < args.kMax; k++) {
                    std::snprintf(name, sizeof name, "mask-bilateral-%d-lev%d.jpg", k, lev);
                    dbgSaveTestImage(name, args.iMax, args.jMax, 1, args.bitDepthPoids,
                                     args.poidsBuffer + (size_t)(lev * args.kMax + k) *
                                                            args.poidsImageStride *
                                                            args.byteDepthPoids);
                }
            }
        }
    }
}

}  // namespace lumora
