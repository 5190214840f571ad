// Fusion driver and public entry points: the sequential spine of a fusion
// call, from the parameter block to the reconstructed output.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/entry_lock.h"
#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

namespace lumora {

int progress(ProgressCallback cb, float amount) {
    if (cb == nullptr) return 1;
    int cancel = 0;
    cb(&cancel, amount);
    return cancel == 0 ? 1 : 0;
}

}  // namespace lumora

using namespace lumora;

extern "C" LUMORA_API int hx_fusion2(optim_param_struct optimParam, float *fusion2Param,
                                     int kMax, int iMax, int jMax, int origImgSizeX,
                                     int origImgSizeY, int rowOut, int rgb2bgr, int spp,
                                     int bpsIn, int bpsOut, int bitDepthPoids,
                                     unsigned char *fusedResult, unsigned char *imagesBuffer,
                                     unsigned char *hdrImage, unsigned char *resImage,
                                     ProgressCallback callback) {
    const EntryLock serialised;  // released after the clean-up
    // Every buffer starts null so that the clean-up can run from any point.
    unsigned char **outputImageTower = nullptr;
    unsigned char **outputImageDiffTower = nullptr;
    unsigned char *poidsBuffer = nullptr;
    unsigned char *results = nullptr;
    unsigned char *brightImage = nullptr;
    unsigned char *brightImageDark = nullptr;
    unsigned char *smoothImg = nullptr;  // never allocated; freed all the same
    float *sharpLUT = nullptr;
    float coeffErreur[256];
    float coeffErreurPreserve[256];
    int slot = 0;

    const int nbProc = optimParam.nbProc < 1 ? 1 : optimParam.nbProc;  // below 1: one thread
    const float strength = fusion2Param[0];
    const float sharpness = fusion2Param[1];
    const float saturationAdjust = fusion2Param[2];
    const float startRadius = fusion2Param[3];
    float spatialRadiusMult = fusion2Param[4];
    const float spatialSigma = fusion2Param[5];
    const float rangeSigma = fusion2Param[6];
    // Truncated: any magnitude below 1.0 means off.
    const int fusionPreserveHighlights = (int)fusion2Param[7];
    const float fusionPreserveInfluence = fusion2Param[8];

    // Progress shares. The reconstruction's share is never reported on its
    // own: the final report jumps to 1.0.
    const float brightProgressProportion = fusionPreserveHighlights ? 0.1f : 0.0f;
    const float reconstructProgressProportion = (1.0f - brightProgressProportion) * 0.1f;
    const float mainFilterProgressProportion =
        (float)((1.0 - brightProgressProportion - reconstructProgressProportion) * 0.66);
    const float poidsFilterProgressProportion =
        (float)((1.0 - brightProgressProportion - reconstructProgressProportion) * 0.34);
    float progressAmt = 0.0f;

    const int numLevels = 2;
    int byteDepthPoids = bitDepthPoids >> 3;
    const int byteDepthBpsIn = bpsIn >> 3;
    const int byteDepthBpsOut = bpsOut >> 3;
    const int max8 = (int)std::pow(2.0, bpsIn) - 1;
    const int max7 = (int)std::pow(2.0, bpsIn - 1);
    const float invMax10 = 10.0f / max7;
    const float sharpnessFactor = sharpness / 5.0f;
    const float satCoeff = (float)(saturationAdjust * 0.1 + 1.0);
    const size_t rowIn = (size_t)iMax * spp;
    const size_t imageStride = jMax * rowIn;
    const size_t poidsImageStride = (size_t)iMax * jMax;
    const float invSigmaWeighting = strength;
    int hlPreserveAccuracy[2] = {SPATIAL_KERNEL_APPROX_DEFAULT, SPATIAL_KERNEL_APPROX_DEFAULT};
    int hlPreserveHighAccuracy[2] = {SPATIAL_KERNEL_APPROX_FINE, SPATIAL_KERNEL_APPROX_FINE};
    int poidsHighAccFactor[2] = {SPATIAL_KERNEL_APPROX_FINE, SPATIAL_KERNEL_APPROX_FINE};
    const float kernelSize = 2 * startRadius + 1;

    outputImageTower = (unsigned char **)allocateZeroed(numLevels * kMax, sizeof(unsigned char *));
    outputImageDiffTower =
        (unsigned char **)allocateZeroed(numLevels * kMax, sizeof(unsigned char *));
    sharpLUT = (float *)allocate(2 * (max7 + 1) * sizeof(float));  // twice the room used

    int darkMergeThreshold =
        fusionPreserveHighlights
            ? (int)(max8 * (0.85 * ((10.0f - fusionPreserveInfluence) * 0.1)))
            : 0;
    const int imgSize = (origImgSizeX + origImgSizeY) / 2;
    // 56.5685... is the square root of 3200: radii are tuned for that size.
    const float factorMult = sqrtf((float)imgSize) / 56.56854248046875f * 10.0f;
    float gaussBlurFactor = sqrtf((float)imgSize) / 56.56854248046875f * 9.0f;
    if (gaussBlurFactor < 1.0f) gaussBlurFactor = 1.0f;
    if (darkMergeThreshold < 0) darkMergeThreshold = 0;
    if (darkMergeThreshold > (int)(max8 * 0.85)) darkMergeThreshold = (int)(max8 * 0.85);
    spatialRadiusMult *= factorMult;
    if (spatialRadiusMult < 1.0f) spatialRadiusMult = 1.0f;

    // Only 8-bit input and 8-bit weights are supported.
    BF_ASSERT(bpsIn == 8);
    BF_ASSERT(bitDepthPoids == 8);

    // The same kernel jitter on every call.
    std::srand(0);

    bitDepthPoids = 8;
    byteDepthPoids = 1;

    // Highlight preservation combines exactly two images.
    if (fusionPreserveHighlights && kMax != 2) {
        // This early return skips the clean-up below on purpose; the three
        // buffers made so far are released here, which a caller cannot see.
        release(outputImageTower);
        release(outputImageDiffTower);
        release(sharpLUT);
        return -1001;
    }

    // These three are not checked where they are made: a null one ends the
    // call here like any failed allocation (clean-up, the slot count), rather
    // than at the first write through it.
    if (outputImageTower == nullptr || outputImageDiffTower == nullptr || sharpLUT == nullptr)
        goto cleanup;

    CIELab_Init(nbProc);
    // Likewise a CIELab table that could not be allocated (it stays null).
    if (labLUT == nullptr) goto cleanup;

    // Detail gain by difference magnitude: small differences are boosted
    // most.
    for (int i = 0; i <= max7; i++) {
        float factor = i * invMax10;
        factor = (float)std::exp((double)(-factor * factor / 0.2f));
        sharpLUT[i] = factor * sharpnessFactor;
    }

    if (debugMain) {
        std::fprintf(stderr,
                     "strength=%f sharpness=%f startRadius=%f mult=%f spatSigma=%f rangeSigma=%f\n",
                     strength, sharpness, startRadius, spatialRadiusMult, spatialSigma,
                     rangeSigma);
        std::fprintf(stderr, "%5s %13s %13s %12s %13s\n", "Level", "Spatial Sigma",
                     "Spatial Radius", "Range Sigma", "Range Radius");
        float spatSigma = spatialSigma;
        const float rangSigma = rangeSigma;
        // Kept: two rows whatever numLevels is, the last column one narrower
        // than its heading.
        for (int lev = 0; lev < 2; lev++) {
            const float spatialRadius = kernelRadius(spatialSigma, spatialRadiusMult, lev);
            const float rangeRadius = kernelRadius(rangeSigma, 1.0f, lev);
            std::fprintf(stderr, "%5d %13.2f %13.1f %12.2f %12.1f\n", lev, spatSigma,
                         spatialRadius, rangSigma, rangeRadius);
            spatSigma *= spatialRadiusMult;
        }
    }

    buildErrorCoefficients(invSigmaWeighting, coeffErreur, coeffErreurPreserve);
    {
        const int ldrMax = bpsIn == 8 ? 256 : 65536;
        (void)ldrMax;  // computed, not used
    }

    // Highlight mask: where the fused image is bright (or the dark image
    // is not dark), blurred and stretched into the bright maps.
    if (spp == 3 && fusionPreserveHighlights) {
        int accuracy[2] = {SPATIAL_KERNEL_APPROX_DEFAULT, SPATIAL_KERNEL_APPROX_DEFAULT};
        const int threshold = (int)(max8 * 200.0f / 255.0f * 3.0f);
        unsigned char *blurBW = (unsigned char *)allocate(poidsImageStride);
        // The mask buffers are not checked either; each ends the call the same way.
        if (blurBW == nullptr) goto cleanup;
        dbgSaveTestImage("bilateral-0-original.jpg", iMax, jMax, spp, bpsIn, fusedResult);
        dbgSaveTestImage("bilateral-1-original.jpg", iMax, jMax, spp, bpsIn, imagesBuffer);

        for (size_t p = 0; p < poidsImageStride; p++) {
            const unsigned char *fused = fusedResult + 3 * p;
            const unsigned char *dark = imagesBuffer + 3 * p;
            const int fuseBright = fused[0] + fused[1] + fused[2];
            const int darkBright = dark[0] + dark[1] + dark[2];
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
            blurBW[p] = (unsigned char)dval;  // low 8 bits: -127 becomes 129
        }

        unsigned char *blurImgTower[2];
        blurImgTower[0] = (unsigned char *)allocate(poidsImageStride);
        blurImgTower[1] = (unsigned char *)allocate(poidsImageStride);
        brightImage = blurImgTower[1];  // released at clean-up
        if (blurImgTower[0] == nullptr || blurImgTower[1] == nullptr) {
            release(blurImgTower[0]);
            release(blurBW);
            goto cleanup;
        }
        if (debugMain)
            std::fprintf(stderr,
                         "\n\n(((((((((((((((((((((((((((((((((BRIGHT-FILTER)))))))))))))))))))))))))))))))))\n");
        fusion2a(nbProc, 2, kernelSize, gaussBlurFactor, 10.0f, 10.0f, 1, iMax, jMax, 1, bpsIn,
                 blurBW, 1, bpsIn, hdrImage, nullptr, accuracy, nullptr, nullptr, blurImgTower,
                 nullptr);
        release(blurImgTower[0]);
        release(blurBW);

        for (size_t p = 0; p < poidsImageStride; p++) {
            const int v = brightImage[p];
            brightImage[p] = (unsigned char)(v > 50 ? 255 : v * 255 / 50);
        }

        brightImageDark = (unsigned char *)allocate(poidsImageStride);
        if (brightImageDark == nullptr) goto cleanup;
        std::memcpy(brightImageDark, brightImage, poidsImageStride);
        for (size_t p = 0; p < poidsImageStride; p++) {
            const unsigned char *dark = imagesBuffer + 3 * p;
            const int darkBright = dark[0] + dark[1] + dark[2];
            (void)darkBright;  // summed, not used
            // Neither mask holds 0.
            if (brightImage[p] == 0) brightImage[p] = 1;
            if (brightImageDark[p] == 0) brightImageDark[p] = 1;
        }
        dbgSaveTestImage("bright-mask.jpg", iMax, jMax, 1, 8, brightImage);

        progressAmt += brightProgressProportion;
        if (!progress(callback, progressAmt)) goto cleanup;
    }

    // Towers. A failure ends the call without a word.
    for (int s = 0; s < numLevels * kMax; s++) {
        outputImageTower[s] = (unsigned char *)allocate(byteDepthBpsIn * imageStride);
        outputImageDiffTower[s] = (unsigned char *)allocate(byteDepthBpsIn * imageStride);
        if (outputImageTower[s] == nullptr || outputImageDiffTower[s] == nullptr) goto cleanup;
    }

    // Every source image through the pyramid.
    for (int k = 0; k < kMax; k++) {
        unsigned char *input;
        unsigned char *thisBrightImage;
        if (fusionPreserveHighlights) {
            input = k == 0 ? fusedResult : imagesBuffer;
            thisBrightImage = k == 0 ? brightImage : brightImageDark;
        } else {
            input = imagesBuffer + k * imageStride * byteDepthBpsIn;
            thisBrightImage = brightImage;
        }
        if (debugMain)
            std::fprintf(stderr,
                         "\n\n((((((((((((((((((((((((((((((((((REAL-FILTER))))))))))))))))))))))))))))))))))\n");
        __k = k;
        fusion2a(nbProc, numLevels, kernelSize, spatialRadiusMult, spatialSigma, rangeSigma, 0,
                 iMax, jMax, spp, bpsIn, input, spp, bpsIn, nullptr, thisBrightImage,
                 thisBrightImage ? hlPreserveAccuracy : nullptr,
                 thisBrightImage ? hlPreserveHighAccuracy : nullptr,
                 outputImageDiffTower + k * numLevels, outputImageTower + k * numLevels,
                 nullptr);
        progressAmt += mainFilterProgressProportion / kMax;
        if (!progress(callback, progressAmt)) goto cleanup;
        if (dbgTestImage) {
            char name[64];
            for (int lev = 0; lev < numLevels; lev++) {
                std::snprintf(name, sizeof name, "image-bilateral-%d-lev%d.jpg", k, lev);
                dbgSaveTestImage(name, iMax, jMax, spp, bpsIn,
                                 outputImageTower[k * numLevels + lev]);
                std::snprintf(name, sizeof name, "image-bilateral-diff-%d-lev%d.jpg", k, lev);
                dbgSaveTestImage(name, iMax, jMax, spp, bpsIn,
                                 outputImageDiffTower[k * numLevels + lev]);
            }
        }
    }

    if (dbgTestImage)
        results = (unsigned char *)allocate(byteDepthBpsIn * imageStride * (numLevels + 1));
    poidsBuffer = (unsigned char *)allocate(byteDepthPoids * poidsImageStride * kMax *
                                               (numLevels + 1));
    if (poidsBuffer == nullptr) {
        std::fprintf(stderr, "CAN'T ALLOCATE POIDSBUFFER\n");
        goto cleanup;
    }

    // The weights read three 8-bit samples per pixel.
    BF_ASSERT(bpsIn == 8 && spp == 3);

    // Raw weights, level 0. Room for three images: kMax is at most 3.
    {
        unsigned char *poidsInPtrs[3];
        unsigned char *poidsOutPtrs[3];
        for (int k = 0; k < kMax; k++) {
            if (fusionPreserveHighlights)
                poidsInPtrs[k] = k == 0 ? fusedResult : imagesBuffer;
            else
                poidsInPtrs[k] = imagesBuffer + k * imageStride;
            poidsOutPtrs[k] = poidsBuffer + k * poidsImageStride;
        }
        // Kept: one table for both arguments, so the last image is not
        // doubled.
        rawWeights({kMax, iMax, jMax, poidsInPtrs, poidsOutPtrs, coeffErreur, coeffErreur,
                    fusionPreserveHighlights});
    }

    // Every weight plane through the pyramid, into levels 1 and 2.
    for (int k = 0; k < kMax; k++) {
        unsigned char *poidsTower[2] = {poidsBuffer + (1 * kMax + k) * poidsImageStride,
                                        poidsBuffer + (2 * kMax + k) * poidsImageStride};
        if (debugMain)
            std::fprintf(stderr,
                         "\n\n((((((((((((((((((((((((((((((((((POIDS-FILTER))))))))))))))))))))))))))))))))))\n");
        __k = k;
        fusion2a(nbProc, numLevels, kernelSize, spatialRadiusMult, spatialSigma, rangeSigma, 0,
                 iMax, jMax, 1, bpsIn, poidsBuffer + k * poidsImageStride, 1, bpsIn, nullptr,
                 brightImage, brightImage ? hlPreserveAccuracy : nullptr,
                 brightImage ? poidsHighAccFactor : nullptr, nullptr, poidsTower, nullptr);
        progressAmt += poidsFilterProgressProportion / kMax;
        if (!progress(callback, progressAmt)) goto cleanup;
    }

    // Kept: clears imageStride samples, whatever rowOut says.
    if (resImage != nullptr) std::memset(resImage, 0, byteDepthBpsOut * imageStride);

    {
        ReconstructionArgs args{};
        args.rowIn = rowIn;
        args.imageStride = imageStride;
        args.poidsImageStride = poidsImageStride;
        args.resImage = resImage;
        args.outputImageTower = outputImageTower;
        args.outputImageDiffTower = outputImageDiffTower;
        args.poidsBuffer = poidsBuffer;
        args.results = results;
        args.imagesBuffer = imagesBuffer;
        args.fusedResult = fusedResult;
        args.coeffErreur = coeffErreur;
        args.sharpLUT = sharpLUT;
        args.numLevels = numLevels;
        args.byteDepthBpsIn = byteDepthBpsIn;
        args.byteDepthBpsOut = byteDepthBpsOut;
        args.max7 = max7;
        args.sharpnessFactor = sharpnessFactor;
        args.satCoeff = satCoeff;
        args.kMax = kMax;
        args.jMax = jMax;
        args.iMax = iMax;
        args.spp = spp;
        args.bpsIn = bpsIn;
        args.bitDepthPoids = bitDepthPoids;
        args.bpsOut = bpsOut;
        args.byteDepthPoids = byteDepthPoids;
        args.rowOut = rowOut;
        args.fusionPreserveHighlights = fusionPreserveHighlights;
        args.darkMergeThreshold = darkMergeThreshold;
        args.rgb2bgr = rgb2bgr;
        reconstruct(nbProc, args);
    }

    // Only a completed call reports 1.0; the answer is ignored.
    progress(callback, 1.0f);

cleanup:
    release(results);
    release(poidsBuffer);
    for (slot = 0; slot < numLevels * kMax; slot++) {
        if (outputImageTower) release(outputImageTower[slot]);
        if (outputImageDiffTower) release(outputImageDiffTower[slot]);
    }
    release(outputImageTower);
    release(outputImageDiffTower);
    release(smoothImg);
    release(brightImage);
    release(brightImageDark);
    release(sharpLUT);
    // Deliberate: the result counts the tower slots walked, not a status.
    return slot;
}

extern "C" LUMORA_API int hx_combi_realistic(optim_param_struct optim_param,
                                             float *realisticParam, int iMax, int jMax,
                                             int rowOut, int rgb2bgr, int spp, int bpsIn,
                                             int bpsOut, int bitDepthPoids,
                                             unsigned char *fusedResult,
                                             unsigned char *darkImage, unsigned char *resImage,
                                             ProgressCallback callback) {
    const EntryLock serialised;
    realisticParam[7] = 1.0f;  // the caller's array is changed: preservation forced on
    return hx_fusion2(optim_param, realisticParam, 2, iMax, jMax, iMax, jMax, rowOut, rgb2bgr,
                      spp, bpsIn, bpsOut, bitDepthPoids, fusedResult, darkImage, nullptr,
                      resImage, callback);
}

extern "C" LUMORA_API int hx_combi_realistic_loupe(
    optim_param_struct optim_param, float *realisticParam, int iMax, int jMax,
    int origImgSizeX, int origImgSizeY, int rowOut, int rgb2bgr, int spp, int bpsIn,
    int bpsOut, int bitDepthPoids, unsigned char *fusedResult, unsigned char *darkImage,
    unsigned char *resImage, ProgressCallback callback) {
    const EntryLock serialised;
    realisticParam[7] = 1.0f;
    return hx_fusion2(optim_param, realisticParam, 2, iMax, jMax, origImgSizeX, origImgSizeY,
                      rowOut, rgb2bgr, spp, bpsIn, bpsOut, bitDepthPoids, fusedResult,
                      darkImage, nullptr, resImage, callback);
}

extern "C" LUMORA_API int init_realistic_param(float *realisticParam) {
    static const float defaults[LUMORA_FUSION_PARAM_COUNT] = {15.0f, 2.0f, 0.0f, 3.0f, 5.0f,
                                                               0.2f,  0.2f, 1.0f, 10.0f};
    for (int i = 0; i < LUMORA_FUSION_PARAM_COUNT; i++) realisticParam[i] = defaults[i];
    return 0;  // carries no meaning; callers ignore it
}
