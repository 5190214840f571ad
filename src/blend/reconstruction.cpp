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

// Row j's level entries, e = (numLevels - lev) * kMax + k for lev from
// numLevels down to 0: the samples that enter the sum (the coarsest smoothed
// image, then the detail images), the samples the weights are judged by, and
// the level's weight plane, each at the row's first pixel.
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
            const int e = (numLevels - lev) * kMax + k;
            unsigned char *image;
            unsigned char *judged;
            if (lev == numLevels) {
                image = judged = a.outputImageTower[k * numLevels + numLevels - 1];
            } else if (lev > 0) {
                image = a.outputImageDiffTower[k * numLevels + lev];
                judged = a.outputImageTower[k * numLevels + lev - 1];
            } else {
                image = a.outputImageDiffTower[k * numLevels];
                if (a.fusionPreserveHighlights)
                    judged = k == 0 ? a.fusedResult : a.imagesBuffer;
                else
                    judged = a.imagesBuffer + k * imageBytes;
            }
            images[e] = image + positIn;
            smoothed[e] = judged + positIn;
            poids[e] = a.poidsBuffer + (size_t)(lev * kMax + k) * planeBytes + poidsPosit;
        }
    }
}


namespace {

// The per-row pointers of one thread. Entry (numLevels - lev) * kMax + k
// belongs to level lev of image k; the pointers walk along the row.
// Fixed arrays, for the driver's at most three images and two levels above
// the base: nothing is allocated inside the team.
constexpr int MAX_IMAGES = 3;
constexpr int MAX_ENTRIES = 3 * MAX_IMAGES;
struct RowCursor {
    unsigned char *images[MAX_ENTRIES];    // samples added to the sum
    unsigned char *smoothed[MAX_ENTRIES];  // samples the weights are judged by
    unsigned char *poids[MAX_ENTRIES];     // weight plane
    unsigned char *src[2] = {nullptr, nullptr};  // fused and dark pixel (highlight mode)
};

inline float readSample(const unsigned char *p, int byteDepth) {
    if (byteDepth == 1) return (float)*p;
    unsigned short v;
    std::memcpy(&v, p, sizeof v);
    return (float)v;
}

}  // namespace

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

namespace {

// Prepares the level entries of row j.
void startRow(const ReconstructionArgs &a, int j, RowCursor &cur) {
    reconstructionRowEntries(a, j, cur.images, cur.smoothed, cur.poids);
    if (a.fusionPreserveHighlights) {
        const size_t positIn = (size_t)a.iMax * j * a.spp * a.byteDepthBpsIn;
        cur.src[0] = a.fusedResult + positIn;
        cur.src[1] = a.imagesBuffer + positIn;
    }
}

// Saturation, channel order, clamping and the store of one pixel.
void writePixel(const ReconstructionArgs &a, float *fvals, unsigned char *&out) {
    const int spp = a.spp;
    if (spp == 3) adjustSaturation(a.satCoeff, fvals);
    for (int s = 0; s < spp; s++) {
        float fval = a.rgb2bgr ? fvals[spp - 1 - s] : fvals[s];
        if (a.byteDepthBpsIn == 1) {
            storeReconstructedSample(fval, out, a.byteDepthBpsOut);
        } else {
            // 16-bit input: unreachable through hx_fusion2, which asserts
            // 8-bit input, and not defined further. Kept minimal: 16-bit
            // output stores the clamped sample, 8-bit output adds the high
            // byte to what the output already holds.
            if (fval < 0.0f) fval = 0.0f;
            if (fval > 65535.0f) fval = 65535.0f;
            if (a.byteDepthBpsOut == 2) {
                const unsigned short v = (unsigned short)(int)fval;
                std::memcpy(out, &v, sizeof v);
            } else {
                *out = (unsigned char)(*out + ((int)fval >> 8));
            }
        }
        out += a.byteDepthBpsOut;
    }
}

// Level lev's weights of the pixel starting at sample i of row j, into
// poidsLev: read from the weight planes, reduced in highlight-preserving
// mode, and checked. Moves the level's judged samples on by a pixel.
void levelWeights(const ReconstructionArgs &a, RowCursor &cur, int lev, size_t i, int j,
                  float *poidsLev) {
    const int kMax = a.kMax;
    const int base = (a.numLevels - lev) * kMax;
    const int byteDepthIn = a.byteDepthBpsIn;
    const int bitDepthPoids = a.bitDepthPoids;  // named so that its check reads as written
    if (byteDepthIn == 1) {
        BF_ASSERT_IN(bitDepthPoids == 8, "hx_fusion2");
        for (int k = 0; k < kMax; k++) poidsLev[k] = *cur.poids[base + k] / 255.0f;
    } else {
        // 16-bit input: unreachable through hx_fusion2, which asserts 8-bit
        // input, and not defined further; kept minimal: weights of the
        // level's smoothed pixels, with a warning past 1.
        unsigned short *smoothed16[MAX_IMAGES];
        for (int k = 0; k < kMax; k++)
            smoothed16[k] = reinterpret_cast<unsigned short *>(cur.smoothed[base + k]);
        calculatePoids16Alt(kMax, smoothed16, a.coeffErreur, poidsLev);
        const int poidsInt = (int)(poidsLev[0] * 255.0f);
        if (poidsInt > 255)
            std::fprintf(stderr, "---> poids=%f,%f poidsInt=%d!\n", poidsLev[0],
                         kMax > 1 ? poidsLev[1] : 0.0f, poidsInt);
    }
    if (a.fusionPreserveHighlights)
        darkImageReduction(a.darkMergeThreshold, cur.src[0], cur.src[1], cur.smoothed[base],
                           cur.smoothed[base + 1], (int)i, j, poidsLev);
    checkLevelWeights(kMax, poidsLev);
    for (int k = 0; k < kMax; k++) cur.smoothed[base + k] += 3 * byteDepthIn;
}

// fval plus level lev's part of sample i: every image's sample (a detail
// sharpened) times its weight. Moves the level's samples and, after a
// pixel's third sample, its weights on.
float addLevel(const ReconstructionArgs &a, RowCursor &cur, int lev, size_t i,
               const float *poidsLev, float fval) {
    const int base = (a.numLevels - lev) * a.kMax;
    for (int k = 0; k < a.kMax; k++) {
        const int e = base + k;
        float imgVal = readSample(cur.images[e], a.byteDepthBpsIn);
        cur.images[e] += a.byteDepthBpsIn;
        const float poidsVal = poidsLev[k];
        if (dbgTestImage) {
            const int v = (int)(poidsVal * 256.0f);
            *cur.poids[e] = (unsigned char)(v < 255 ? v : 255);
        }
        if (i % 3 == 2) cur.poids[e] += a.byteDepthPoids;
        if (lev != a.numLevels) imgVal = sharpenedDetail(a, imgVal);
        fval += imgVal * poidsVal;
    }
    return fval;
}

// Rows [rowBegin, rowEnd) of the output, with this thread's scratch.
void reconstructRows(const ReconstructionArgs &a, int rowBegin, int rowEnd) {
    const int spp = a.spp;
    const int byteDepthIn = a.byteDepthBpsIn;
    RowCursor cur;
    float poids[MAX_ENTRIES];  // level lev's weights at poids + kMax * lev
    float fvals[3];            // the pixel's samples

    for (int j = rowBegin; j < rowEnd; j++) {
        const size_t positIn = (size_t)a.iMax * j * spp * byteDepthIn;
        const size_t positOut = (size_t)a.rowOut * j * a.byteDepthBpsOut;  // rowOut counts samples
        unsigned char *out = a.resImage + positOut;
        startRow(a, j, cur);

        for (size_t i = 0; i < a.rowIn; i++) {
            float fval = 0.0f;
            for (int lev = a.numLevels; lev >= 0; lev--) {
                float *poidsLev = poids + a.kMax * lev;
                // Weights once per pixel; the 3 is fixed, not spp.
                if (i % 3 == 0) levelWeights(a, cur, lev, i, j, poidsLev);
                fval = addLevel(a, cur, lev, i, poidsLev, fval);
                if (dbgTestImage && byteDepthIn == 1)
                    a.results[lev * a.imageStride + positIn + i] = (unsigned char)(int)fval;
            }

            if (a.fusionPreserveHighlights && i % 3 == 2) {
                cur.src[0] += spp * byteDepthIn;
                cur.src[1] += spp * byteDepthIn;
            }
            fvals[i % 3] = fval;

            if ((int)(i % spp) == spp - 1) writePixel(a, fvals, out);
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
