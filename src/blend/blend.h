// blend.h: exposure weights and the per-pixel reconstruction of the output.
#pragma once

#include "core/core.h"

namespace lumora {

// ---------------------------------------------------------------------------
// Exposure weights (exposure_weights.cpp)

void buildErrorCoefficients(float invSigmaWeighting, float *coeffErreur,
                            float *coeffErreurPreserve);
void calculatePoids8Alt(int kMax, unsigned char **imagePtrs, int spp, int i, int j, int iMax,
                        int jMax, float *coeffErreur, float *coeffErreurLastImg,
                        int contrastColourWeight, float *poids);
void calculatePoids16Alt(int kMax, unsigned short **imagePtrs, float *coeffErreur,
                         float *poids);
// Shifts weight towards the dark image (index 1) where the fused image
// (index 0) is near white; highlight-preserving mode only.
void highlightShift(const unsigned char *fusedPixel, const unsigned char *darkPixel,
                    float *poidsLev);

// The level-0 weight planes: for each pixel of the kMax images in[k] (three
// samples a pixel), calculatePoids8Alt, the highlight shift when highlight is
// set, and the byte (int)(poids * 255.0f) into plane out[k].
struct RawWeightsArgs {
    int kMax;
    int iMax;
    int jMax;
    unsigned char *const *in;   // image k, three samples a pixel
    unsigned char *const *out;  // weight plane k
    float *coeffErreur;
    float *coeffErreurLastImg;
    int highlight;
};
// The reference: pixels [first, first + n), one at a time.
void rawWeightPixels(const RawWeightsArgs &args, size_t first, size_t n);
namespace simd {
// Every pixel, vectorised across pixels (exposure_weights_hwy.cpp), with the
// reference's bytes and aborts.
void rawWeights(const RawWeightsArgs &args);
}  // namespace simd
// Every pixel, on the SIMD path or, when the switch asks, the reference.
void rawWeights(const RawWeightsArgs &args);

// ---------------------------------------------------------------------------
// Reconstruction (reconstruction.cpp)

// Within the driver's limits: kMax at most 3, numLevels at most 2, spp at
// most 3 (the per-thread scratch is sized for them).
struct ReconstructionArgs {
    size_t rowIn;
    size_t imageStride;
    size_t poidsImageStride;
    unsigned char *resImage;
    unsigned char **outputImageTower;
    unsigned char **outputImageDiffTower;
    unsigned char *poidsBuffer;
    unsigned char *results;
    unsigned char *imagesBuffer;
    unsigned char *fusedResult;
    float *coeffErreur;
    float *sharpLUT;
    int numLevels;
    int byteDepthBpsIn;
    int byteDepthBpsOut;
    int max7;
    float sharpnessFactor;
    float satCoeff;
    int kMax;
    int jMax;
    int iMax;
    int spp;
    int bpsIn;
    int bitDepthPoids;
    int bpsOut;
    int byteDepthPoids;
    int rowOut;
    int fusionPreserveHighlights;
    int darkMergeThreshold;
    int rgb2bgr;
};
void reconstruct(int nbProc, const ReconstructionArgs &args);
// One reconstructed sample of 8-bit data stored at the output depth: clamped
// to 0..255 (8-bit output) or scaled by 256 and clamped to 0..65535 (16-bit),
// then truncated.
inline void storeReconstructedSample(float fval, unsigned char *out, int byteDepthOut) {
    if (byteDepthOut == 1) {
        if (fval < 0.0f) fval = 0.0f;
        if (fval > 255.0f) fval = 255.0f;
        *out = (unsigned char)(int)fval;
    } else {
        fval *= 256.0f;
        if (fval < 0.0f) fval = 0.0f;
        if (fval > 65535.0f) fval = 65535.0f;
        const unsigned short v = (unsigned short)(int)fval;
        std::memcpy(out, &v, sizeof v);
    }
}

// A detail sample's signed difference from max7, sharpened through sharpLUT
// when sharpnessFactor is positive.
inline float sharpenedDetail(const ReconstructionArgs &a, float imgVal) {
    imgVal -= a.max7;
    if (a.sharpnessFactor > 0.0f) imgVal += imgVal * a.sharpLUT[std::abs((int)imgVal)];
    return imgVal;
}

// (r + g + b) / 3 of one 8-bit pixel, in integers.
inline int pixelLuminance(const unsigned char *p) { return (p[0] + p[1] + p[2]) / 3; }

// The dark-image reduction (highlight-preserving mode, kMax 2) of one pixel
// at one level, in steps: the luminance that decides the dark merge, its
// blend weight for thresholds 140..169, the two factors, and the whole
// reduction of poidsLev[0..1] from the pixel's fused, dark and two smoothed
// samples, which aborts with its report when both weights are 0. i is the
// row's sample index of the pixel, as the report prints it.
inline float darkMergeBlend(int threshold) { return (threshold - 140) / 30.0f; }
int darkMergeLuminance(int threshold, int smoothLum0, int luminance0);
float darkMergeFactor(int threshold, int darkMergeLum);
float darkCutFactor(int darkCutLum);
void darkImageReduction(int threshold, const unsigned char *fused, const unsigned char *dark,
                        const unsigned char *smooth0, const unsigned char *smooth1, int i, int j,
                        float *poidsLev);
// A level's weights past 1 (or not a number): every weight is reported and
// the process aborts.
void checkLevelWeights(int kMax, const float *poidsLev);
// The saturation step of one reconstructed RGB pixel: the host's HSL round
// trip with the saturation scaled by satCoeff and capped at 1; skipped only
// for a coefficient of exactly 0.
void adjustSaturation(float satCoeff, float *fvals);

// Row j's level entries (e = blendEntry(lev, k)): the samples added to the
// sum, the samples its weights are judged by, and its weight plane.
void reconstructionRowEntries(const ReconstructionArgs &args, int j, unsigned char **images,
                              unsigned char **smoothed, unsigned char **poids);

// The entries of a pixel's sum: at most three images on at most three levels.
constexpr int MAX_BLEND_ENTRIES = 9;

// Row j's pointers, each at the row's first pixel: entry e of each array
// as in reconstructionRowEntries.
struct RowView {
    unsigned char **images = nullptr;    // samples added to the sum
    unsigned char **smoothed = nullptr;  // samples the weights are judged by
    unsigned char **poids = nullptr;     // weight plane
    const unsigned char *fused = nullptr;  // highlight mode: the fused pixels
    const unsigned char *dark = nullptr;   // and the dark ones
};
void startRowView(const ReconstructionArgs &args, int j, RowView &row);

// Tables of one reconstruction call, entry by entry from the per-pixel
// steps: they replace per-sample work that depends on one byte alone.
struct ReconTables {
    float detail[256];   // a detail byte's difference from max7, sharpened
    float factor1[256];  // dark-merge factor by darkMergeLum
    float factor2[256];  // dark-cut factor by darkCutLum
    float mergeF;        // the blend of smoothed and fused luminance (threshold 140..169)
};
void buildReconTables(const ReconstructionArgs &args, ReconTables *tables);

// The per-pixel reference of the reconstruction, in the phases the SIMD rows
// take a row at a time; those fall back on it for the pixels they leave.
// Pixel x's weights at every level into w[e * stride], reduced in
// highlight mode and checked, with the aborts and reports of a bad weight.
void pixelWeights(const ReconstructionArgs &args, const RowView &row, int x, int j, float *w,
                  size_t stride);
// Pixel x's level blend of its three samples into acc[s * accStride]: per
// sample from 0, entry by entry (the coarsest level first, images in order).
void pixelBlend(const ReconstructionArgs &args, const ReconTables &tables, const RowView &row,
                const float *w, size_t stride, int x, int j, float *acc, size_t accStride);
// The saturation step of the pixel's three sums, then the channel order:
// samples as they are stored.
void finishPixel(const ReconstructionArgs &args, float *fvals, float *samples);

// ---------------------------------------------------------------------------
// SIMD reconstruction (reconstruction_hwy.cpp)

namespace simd {
// Whether reconstructRows covers these arguments (8-bit input and weights,
// three samples, at most three images, no debug dumps).
bool reconstructionCovers(const ReconstructionArgs &args);
// Output rows [rowBegin, rowEnd) of the reconstruction, vectorised across the
// pixels of a row, with the per-pixel code's bytes and aborts. False, with
// nothing written, when its row buffers cannot be allocated.
bool reconstructRows(const ReconstructionArgs &args, int rowBegin, int rowEnd);
}  // namespace simd

}  // namespace lumora
