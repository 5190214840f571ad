// Fusion driver: the sequential spine of a fusion call, from the parameter
// block to the reconstructed output.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "filter/level_pass_device.h"
#include "tables/tables.h"

namespace lumora {

int progress(ProgressCallback cb, float amount) {
    if (cb == nullptr) return 1;
    int cancel = 0;
    cb(&cancel, amount);
    return cancel == 0 ? 1 : 0;
}

bool Progress::advance(float share) {
    amount += share;
    const bool goOn = progress(callback, amount) != 0;
    // A cancel asked for between the bands of a device pass ends here too.
    return goOn && !device::cancelledBetweenBands();
}

FusionConstants deriveConstants(const FusionArgs &a) {
    FusionConstants c{};
    const float *p = a.fusion2Param;
    c.nbProc = a.optimParam.nbProc < 1 ? 1 : a.optimParam.nbProc;  // below 1: one thread
    c.strength = p[0];
    c.sharpness = p[1];
    c.saturationAdjust = p[2];
    c.startRadius = p[3];
    c.spatialSigma = p[5];
    c.rangeSigma = p[6];
    // Truncated: any magnitude below 1.0 means off.
    c.fusionPreserveHighlights = (int)p[7];
    c.fusionPreserveInfluence = p[8];

    // The reconstruction's share is never reported on its own: the final
    // report jumps to 1.0.
    c.brightProgressProportion = c.fusionPreserveHighlights ? 0.1f : 0.0f;
    c.reconstructProgressProportion = (1.0f - c.brightProgressProportion) * 0.1f;
    c.mainFilterProgressProportion = (float)((1.0 - c.brightProgressProportion -
                                              c.reconstructProgressProportion) * 0.66);
    c.poidsFilterProgressProportion = (float)((1.0 - c.brightProgressProportion -
                                               c.reconstructProgressProportion) * 0.34);

    c.numLevels = 2;
    // The weights are 8-bit whatever was asked for; runFusion checks the
    // request.
    c.bitDepthPoids = 8;
    c.byteDepthPoids = 1;
    c.byteDepthBpsIn = a.bpsIn >> 3;
    c.byteDepthBpsOut = a.bpsOut >> 3;
    c.max8 = (int)std::pow(2.0, a.bpsIn) - 1;
    c.max7 = (int)std::pow(2.0, a.bpsIn - 1);
    c.invMax10 = 10.0f / c.max7;
    c.sharpnessFactor = c.sharpness / 5.0f;
    c.satCoeff = (float)(c.saturationAdjust * 0.1 + 1.0);
    c.rowIn = (size_t)a.iMax * a.spp;
    c.imageStride = a.jMax * c.rowIn;
    c.poidsImageStride = (size_t)a.iMax * a.jMax;
    c.invSigmaWeighting = c.strength;
    c.kernelSize = 2 * c.startRadius + 1;

    c.darkMergeThreshold =
        c.fusionPreserveHighlights
            ? (int)(c.max8 * (0.85 * ((10.0f - c.fusionPreserveInfluence) * 0.1)))
            : 0;
    if (c.darkMergeThreshold < 0) c.darkMergeThreshold = 0;
    if (c.darkMergeThreshold > (int)(c.max8 * 0.85)) c.darkMergeThreshold = (int)(c.max8 * 0.85);
    c.imgSize = (a.origImgSizeX + a.origImgSizeY) / 2;
    // 56.5685... is the square root of 3200: radii are tuned for that size.
    c.factorMult = sqrtf((float)c.imgSize) / 56.56854248046875f * 10.0f;
    c.gaussBlurFactor = sqrtf((float)c.imgSize) / 56.56854248046875f * 9.0f;
    if (c.gaussBlurFactor < 1.0f) c.gaussBlurFactor = 1.0f;
    c.spatialRadiusMult = p[4] * c.factorMult;
    if (c.spatialRadiusMult < 1.0f) c.spatialRadiusMult = 1.0f;
    c.ldrMax = a.bpsIn == 8 ? 256 : 65536;  // computed, not used
    // Three samples of 200 (for 8 bits).
    c.maskThreshold = (int)(c.max8 * 200.0f / 255.0f * 3.0f);
    return c;
}

// Released in a fixed order: the debug results, the weights, the towers, the
// tower arrays, then the maps and the gain table.
FusionBuffers::~FusionBuffers() {
    release(results);
    release(poidsBuffer);
    for (int slot = 0; slot < towerSlots; slot++) {
        if (outputImageTower) release(outputImageTower[slot]);
        if (outputImageDiffTower) release(outputImageDiffTower[slot]);
    }
    release(outputImageTower);
    release(outputImageDiffTower);
    release(smoothImg);
    release(brightImage);
    release(brightImageDark);
    release(sharpLUT);
}

void buildSharpeningTable(const FusionConstants &c, float *sharpLUT) {
    // Small differences are boosted most.
    for (int i = 0; i <= c.max7; i++) {
        float factor = i * c.invMax10;
        factor = (float)std::exp((double)(-factor * factor / 0.2f));
        sharpLUT[i] = factor * c.sharpnessFactor;
    }
}

void printCommentary(const FusionConstants &c) {
    std::fprintf(stderr,
                 "strength=%f sharpness=%f startRadius=%f mult=%f spatSigma=%f rangeSigma=%f\n",
                 c.strength, c.sharpness, c.startRadius, c.spatialRadiusMult, c.spatialSigma,
                 c.rangeSigma);
    std::fprintf(stderr, "%5s %13s %13s %12s %13s\n", "Level", "Spatial Sigma",
                 "Spatial Radius", "Range Sigma", "Range Radius");
    float spatSigma = c.spatialSigma;
    const float rangSigma = c.rangeSigma;
    // Kept: two rows whatever numLevels is, the last column one narrower than
    // its heading.
    for (int lev = 0; lev < 2; lev++) {
        const float spatialRadius = kernelRadius(c.spatialSigma, c.spatialRadiusMult, lev);
        const float rangeRadius = kernelRadius(c.rangeSigma, 1.0f, lev);
        std::fprintf(stderr, "%5d %13.2f %13.1f %12.2f %12.1f\n", lev, spatSigma, spatialRadius,
                     rangSigma, rangeRadius);
        spatSigma *= c.spatialRadiusMult;
    }
}

// ---------------------------------------------------------------------------
// Highlight masks: where the fused image is bright (or the dark image is not
// dark), blurred and stretched into the bright maps.

unsigned char maskRampByte(int fuseBright, int darkBright, int threshold) {
    int dval;
    if (fuseBright > threshold + 10)
        dval = 255;
    else if (fuseBright > threshold - 10)
        // Deliberate: the ramp subtracts 10 and runs from -242 to 0.
        dval = (int)((fuseBright - threshold - 10) / 20.0f * 255.0f);
    else
        dval = 0;
    if (dval == 0) {
        if (darkBright > 110)
            dval = 255;
        else if (darkBright > 90)
            dval = (int)((darkBright - 90) / 20.0f * 255.0f);
        else
            dval = 0;
    }
    return (unsigned char)dval;  // low 8 bits: -127 becomes 129
}

void maskRamp(const unsigned char *fused, const unsigned char *dark, size_t numPixels,
              int threshold, unsigned char *mask) {
    for (size_t p = 0; p < numPixels; p++) {
        const unsigned char *f = fused + 3 * p;
        const unsigned char *d = dark + 3 * p;
        mask[p] = maskRampByte(f[0] + f[1] + f[2], d[0] + d[1] + d[2], threshold);
    }
}

void stretchMask(unsigned char *mask, size_t numPixels) {
    for (size_t p = 0; p < numPixels; p++) {
        const int v = mask[p];
        mask[p] = (unsigned char)(v > 50 ? 255 : v * 255 / 50);
    }
}

namespace {

// Neither map holds 0 afterwards.
void liftZeros(const unsigned char *darkImage, unsigned char *brightImage,
               unsigned char *brightImageDark, size_t numPixels) {
    for (size_t p = 0; p < numPixels; p++) {
        const unsigned char *dark = darkImage + 3 * p;
        const int darkBright = dark[0] + dark[1] + dark[2];
        (void)darkBright;  // summed, not used
        if (brightImage[p] == 0) brightImage[p] = 1;
        if (brightImageDark[p] == 0) brightImageDark[p] = 1;
    }
}

}  // namespace

bool buildHighlightMasks(const FusionConstants &c, const FusionArgs &a, FusionBuffers &buf) {
    const size_t numPixels = c.poidsImageStride;
    int accuracy[2] = {SPATIAL_KERNEL_APPROX_DEFAULT, SPATIAL_KERNEL_APPROX_DEFAULT};
    // The mask buffers are not checked where they are made either; each ends
    // the call like any failed allocation.
    unsigned char *blurBW = (unsigned char *)allocate(numPixels);
    if (blurBW == nullptr) return false;
    dbgSaveTestImage("bilateral-0-original.jpg", a.iMax, a.jMax, a.spp, a.bpsIn, a.fusedResult);
    dbgSaveTestImage("bilateral-1-original.jpg", a.iMax, a.jMax, a.spp, a.bpsIn, a.imagesBuffer);
    maskRamp(a.fusedResult, a.imagesBuffer, numPixels, c.maskThreshold, blurBW);

    // Blurred gauss-only through two levels; the second is the bright map.
    unsigned char *blurImgTower[2];
    blurImgTower[0] = (unsigned char *)allocate(numPixels);
    blurImgTower[1] = (unsigned char *)allocate(numPixels);
    buf.brightImage = blurImgTower[1];
    if (blurImgTower[0] == nullptr || blurImgTower[1] == nullptr) {
        release(blurImgTower[0]);
        release(blurBW);
        return false;
    }
    if (debugMain)
        std::fprintf(stderr,
                     "\n\n(((((((((((((((((((((((((((((((((BRIGHT-FILTER)))))))))))))))))))))))))))))))))\n");
    fusion2a(c.nbProc, 2, c.kernelSize, c.gaussBlurFactor, 10.0f, 10.0f, 1, a.iMax, a.jMax, 1,
             a.bpsIn, blurBW, 1, a.bpsIn, a.hdrImage, nullptr, accuracy, nullptr, nullptr,
             blurImgTower, nullptr);
    release(blurImgTower[0]);
    release(blurBW);
    stretchMask(buf.brightImage, numPixels);

    buf.brightImageDark = (unsigned char *)allocate(numPixels);
    if (buf.brightImageDark == nullptr) return false;
    std::memcpy(buf.brightImageDark, buf.brightImage, numPixels);
    liftZeros(a.imagesBuffer, buf.brightImage, buf.brightImageDark, numPixels);
    dbgSaveTestImage("bright-mask.jpg", a.iMax, a.jMax, 1, 8, buf.brightImage);
    return true;
}

// ---------------------------------------------------------------------------
// Towers and filters

bool allocateTowers(const FusionConstants &c, FusionBuffers &buf) {
    // A failure ends the call without a word.
    for (int s = 0; s < buf.towerSlots; s++) {
        buf.outputImageTower[s] = (unsigned char *)allocate(c.byteDepthBpsIn * c.imageStride);
        buf.outputImageDiffTower[s] = (unsigned char *)allocate(c.byteDepthBpsIn * c.imageStride);
        if (buf.outputImageTower[s] == nullptr || buf.outputImageDiffTower[s] == nullptr)
            return false;
    }
    return true;
}

namespace {

void dumpSourceTowers(const FusionConstants &c, const FusionArgs &a, const FusionBuffers &buf,
                      int k) {
    char name[64];
    for (int lev = 0; lev < c.numLevels; lev++) {
        std::snprintf(name, sizeof name, "image-bilateral-%d-lev%d.jpg", k, lev);
        dbgSaveTestImage(name, a.iMax, a.jMax, a.spp, a.bpsIn,
                         buf.outputImageTower[towerSlot(k, lev, c.numLevels)]);
        std::snprintf(name, sizeof name, "image-bilateral-diff-%d-lev%d.jpg", k, lev);
        dbgSaveTestImage(name, a.iMax, a.jMax, a.spp, a.bpsIn,
                         buf.outputImageDiffTower[towerSlot(k, lev, c.numLevels)]);
    }
}

}  // namespace

bool filterSources(const FusionConstants &c, const FusionArgs &a, FusionBuffers &buf,
                   Progress &prog) {
    int hlPreserveAccuracy[2] = {SPATIAL_KERNEL_APPROX_DEFAULT, SPATIAL_KERNEL_APPROX_DEFAULT};
    int hlPreserveHighAccuracy[2] = {SPATIAL_KERNEL_APPROX_FINE, SPATIAL_KERNEL_APPROX_FINE};
    for (int k = 0; k < a.kMax; k++) {
        unsigned char *input;
        unsigned char *thisBrightImage;
        if (c.fusionPreserveHighlights) {
            input = k == 0 ? a.fusedResult : a.imagesBuffer;
            thisBrightImage = k == 0 ? buf.brightImage : buf.brightImageDark;
        } else {
            input = a.imagesBuffer + k * c.imageStride * c.byteDepthBpsIn;
            thisBrightImage = buf.brightImage;
        }
        if (debugMain)
            std::fprintf(stderr,
                         "\n\n((((((((((((((((((((((((((((((((((REAL-FILTER))))))))))))))))))))))))))))))))))\n");
        __k = k;
        fusion2a(c.nbProc, c.numLevels, c.kernelSize, c.spatialRadiusMult, c.spatialSigma,
                 c.rangeSigma, 0, a.iMax, a.jMax, a.spp, a.bpsIn, input, a.spp, a.bpsIn, nullptr,
                 thisBrightImage, thisBrightImage ? hlPreserveAccuracy : nullptr,
                 thisBrightImage ? hlPreserveHighAccuracy : nullptr,
                 buf.outputImageDiffTower + towerSlot(k, 0, c.numLevels),
                 buf.outputImageTower + towerSlot(k, 0, c.numLevels),
                 nullptr);
        if (!prog.advance(c.mainFilterProgressProportion / a.kMax)) return false;
        if (dbgTestImage) dumpSourceTowers(c, a, buf, k);
    }
    return true;
}

bool allocateWeightBuffers(const FusionConstants &c, int kMax, FusionBuffers &buf) {
    if (dbgTestImage)
        buf.results =
            (unsigned char *)allocate(c.byteDepthBpsIn * c.imageStride * (c.numLevels + 1));
    buf.poidsBuffer = (unsigned char *)allocate(c.byteDepthPoids * c.poidsImageStride * kMax *
                                                   (c.numLevels + 1));
    if (buf.poidsBuffer == nullptr) {
        std::fprintf(stderr, "CAN'T ALLOCATE POIDSBUFFER\n");
        return false;
    }
    return true;
}

void computeRawWeights(const FusionConstants &c, const FusionArgs &a, FusionBuffers &buf,
                       float *coeffErreur) {
    // The weights read three 8-bit samples per pixel.
    const int bpsIn = a.bpsIn, spp = a.spp;
    BF_ASSERT_IN(bpsIn == 8 && spp == 3, "hx_fusion2");
    // Room for three images: kMax is at most 3.
    unsigned char *poidsInPtrs[3];
    unsigned char *poidsOutPtrs[3];
    for (int k = 0; k < a.kMax; k++) {
        if (c.fusionPreserveHighlights)
            poidsInPtrs[k] = k == 0 ? a.fusedResult : a.imagesBuffer;
        else
            poidsInPtrs[k] = a.imagesBuffer + k * c.imageStride;
        poidsOutPtrs[k] = buf.poidsBuffer + weightPlaneOffset(0, k, a.kMax, c.poidsImageStride);
    }
    // Kept: one table for both arguments, so the last image is not doubled.
    rawWeights({a.kMax, a.iMax, a.jMax, poidsInPtrs, poidsOutPtrs, coeffErreur, coeffErreur,
                c.fusionPreserveHighlights});
}

bool filterWeights(const FusionConstants &c, const FusionArgs &a, FusionBuffers &buf,
                   Progress &prog) {
    int hlPreserveAccuracy[2] = {SPATIAL_KERNEL_APPROX_DEFAULT, SPATIAL_KERNEL_APPROX_DEFAULT};
    int poidsHighAccFactor[2] = {SPATIAL_KERNEL_APPROX_FINE, SPATIAL_KERNEL_APPROX_FINE};
    unsigned char *poidsBuffer = buf.poidsBuffer;
    const size_t plane = c.poidsImageStride;
    for (int k = 0; k < a.kMax; k++) {
        unsigned char *rawPoids = poidsBuffer + weightPlaneOffset(0, k, a.kMax, plane);
        unsigned char *poidsTower[2] = {poidsBuffer + weightPlaneOffset(1, k, a.kMax, plane),
                                        poidsBuffer + weightPlaneOffset(2, k, a.kMax, plane)};
        if (debugMain)
            std::fprintf(stderr,
                         "\n\n((((((((((((((((((((((((((((((((((POIDS-FILTER))))))))))))))))))))))))))))))))))\n");
        __k = k;
        fusion2a(c.nbProc, c.numLevels, c.kernelSize, c.spatialRadiusMult, c.spatialSigma,
                 c.rangeSigma, 0, a.iMax, a.jMax, 1, a.bpsIn, rawPoids, 1, a.bpsIn,
                 nullptr, buf.brightImage, buf.brightImage ? hlPreserveAccuracy : nullptr,
                 buf.brightImage ? poidsHighAccFactor : nullptr, nullptr, poidsTower, nullptr);
        if (!prog.advance(c.poidsFilterProgressProportion / a.kMax)) return false;
    }
    return true;
}

void reconstructOutput(const FusionConstants &c, const FusionArgs &a, FusionBuffers &buf,
                       float *coeffErreur) {
    // Kept: clears imageStride samples, whatever rowOut says.
    if (a.resImage != nullptr) std::memset(a.resImage, 0, c.byteDepthBpsOut * c.imageStride);
    ReconstructionArgs args{};
    args.rowIn = c.rowIn;
    args.imageStride = c.imageStride;
    args.poidsImageStride = c.poidsImageStride;
    args.resImage = a.resImage;
    args.outputImageTower = buf.outputImageTower;
    args.outputImageDiffTower = buf.outputImageDiffTower;
    args.poidsBuffer = buf.poidsBuffer;
    args.results = buf.results;
    args.imagesBuffer = a.imagesBuffer;
    args.fusedResult = a.fusedResult;
    args.coeffErreur = coeffErreur;
    args.sharpLUT = buf.sharpLUT;
    args.numLevels = c.numLevels;
    args.byteDepthBpsIn = c.byteDepthBpsIn;
    args.byteDepthBpsOut = c.byteDepthBpsOut;
    args.max7 = c.max7;
    args.sharpnessFactor = c.sharpnessFactor;
    args.satCoeff = c.satCoeff;
    args.kMax = a.kMax;
    args.jMax = a.jMax;
    args.iMax = a.iMax;
    args.spp = a.spp;
    args.bpsIn = a.bpsIn;
    args.bitDepthPoids = c.bitDepthPoids;
    args.bpsOut = a.bpsOut;
    args.byteDepthPoids = c.byteDepthPoids;
    args.rowOut = a.rowOut;
    args.fusionPreserveHighlights = c.fusionPreserveHighlights;
    args.darkMergeThreshold = c.darkMergeThreshold;
    args.rgb2bgr = a.rgb2bgr;
    reconstruct(c.nbProc, args);
}

// ---------------------------------------------------------------------------
// The whole call

namespace {

// The stages after the call's first buffers, in order; returns at the first
// that stops the call (a buffer that could not be made, or a cancellation).
void runStages(const FusionConstants &c, const FusionArgs &a, FusionBuffers &buf) {
    // The first three buffers are not checked where they are made: a null
    // one ends the call here like any failed allocation, rather than at the
    // first write through it. Likewise a CIELab table that could not be
    // allocated (it stays null).
    if (buf.outputImageTower == nullptr || buf.outputImageDiffTower == nullptr ||
        buf.sharpLUT == nullptr)
        return;
    CIELab_Init(c.nbProc);
    if (labLUT == nullptr) return;

    buildSharpeningTable(c, buf.sharpLUT);
    if (debugMain) printCommentary(c);
    float coeffErreur[256];
    float coeffErreurPreserve[256];
    buildErrorCoefficients(c.invSigmaWeighting, coeffErreur, coeffErreurPreserve);

    Progress prog{a.callback};
    // The device pass asks the host between bands, for this fusion only.
    struct BandPoll {
        explicit BandPoll(Progress &p) { device::setBandPoll(p.callback, &p.amount); }
        ~BandPoll() { device::setBandPoll(nullptr, nullptr); }
    } bandPoll(prog);
    if (a.spp == 3 && c.fusionPreserveHighlights) {
        if (!buildHighlightMasks(c, a, buf)) return;
        if (!prog.advance(c.brightProgressProportion)) return;
    }
    if (!allocateTowers(c, buf) || !filterSources(c, a, buf, prog)) return;
    if (!allocateWeightBuffers(c, a.kMax, buf)) return;
    computeRawWeights(c, a, buf, coeffErreur);
    if (!filterWeights(c, a, buf, prog)) return;
    reconstructOutput(c, a, buf, coeffErreur);
    // Only a completed call reports 1.0; the answer is ignored.
    progress(a.callback, 1.0f);
}

}  // namespace

int runFusion(const FusionArgs &a) {
    const FusionConstants c = deriveConstants(a);
    FusionBuffers buf(c.numLevels * a.kMax);
    buf.outputImageTower =
        (unsigned char **)allocateZeroed(buf.towerSlots, sizeof(unsigned char *));
    buf.outputImageDiffTower =
        (unsigned char **)allocateZeroed(buf.towerSlots, sizeof(unsigned char *));
    buf.sharpLUT = (float *)allocate(2 * (c.max7 + 1) * sizeof(float));  // twice the room used

    // Only 8-bit input and 8-bit weights are supported.
    const int bpsIn = a.bpsIn, bitDepthPoids = a.bitDepthPoids;
    BF_ASSERT_IN(bpsIn == 8, "hx_fusion2");
    BF_ASSERT_IN(bitDepthPoids == 8, "hx_fusion2");

    // The same kernel jitter on every call.
    std::srand(0);

    // Highlight preservation combines exactly two images. Nothing but the
    // three buffers above is held yet; they go back as the call ends.
    if (c.fusionPreserveHighlights && a.kMax != 2) return -1001;

    runStages(c, a, buf);
    // Deliberate: the result counts the tower slots the clean-up walks, not
    // a status.
    return buf.slotsWalked();
}

}  // namespace lumora
