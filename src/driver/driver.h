// driver.h: the fusion driver behind the public entry points.
#pragma once

#include "core/core.h"

namespace lumora {

// Forwards progress to the host; returns 0 when the host asked to cancel.
int progress(ProgressCallback cb, float amount);

// The arguments of one hx_fusion2 call, as the host passed them.
struct FusionArgs {
    optim_param_struct optimParam;
    float *fusion2Param;
    int kMax;
    int iMax;
    int jMax;
    int origImgSizeX;
    int origImgSizeY;
    int rowOut;
    int rgb2bgr;
    int spp;
    int bpsIn;
    int bpsOut;
    int bitDepthPoids;
    unsigned char *fusedResult;
    unsigned char *imagesBuffer;
    unsigned char *hdrImage;
    unsigned char *resImage;
    ProgressCallback callback;
};

// One whole fusion (fusion.cpp); hx_fusion2's result.
int runFusion(const FusionArgs &args);

// ---------------------------------------------------------------------------
// The stages of a fusion, in the order runFusion runs them.

// The working constants of one call, all derived from its arguments.
struct FusionConstants {
    // The nine parameters, read once.
    int nbProc;
    float strength;
    float sharpness;
    float saturationAdjust;
    float startRadius;
    float spatialRadiusMult;  // scaled by the picture size, at least 1
    float spatialSigma;
    float rangeSigma;
    int fusionPreserveHighlights;  // truncated toward zero
    float fusionPreserveInfluence;
    // Shares of the progress reports.
    float brightProgressProportion;
    float reconstructProgressProportion;
    float mainFilterProgressProportion;
    float poidsFilterProgressProportion;
    int numLevels;
    int bitDepthPoids;
    int byteDepthPoids;
    int byteDepthBpsIn;
    int byteDepthBpsOut;
    int max8;
    int max7;
    float invMax10;
    float sharpnessFactor;
    float satCoeff;
    size_t rowIn;             // samples per source row
    size_t imageStride;       // samples per source image
    size_t poidsImageStride;  // bytes per weight plane
    float invSigmaWeighting;
    float kernelSize;  // every pyramid call's starting kernel size
    int darkMergeThreshold;
    int imgSize;
    float factorMult;
    float gaussBlurFactor;
    int ldrMax;
    int maskThreshold;  // pixel sum at the middle of the highlight mask's ramp
};
FusionConstants deriveConstants(const FusionArgs &args);

// Owns every buffer of one fusion call; its destruction is the call's
// clean-up, whatever point the call stopped at.
struct FusionBuffers {
    explicit FusionBuffers(int towerSlots) : towerSlots(towerSlots) {}
    FusionBuffers(const FusionBuffers &) = delete;
    FusionBuffers &operator=(const FusionBuffers &) = delete;
    ~FusionBuffers();
    // The number of tower slots the clean-up walks.
    int slotsWalked() const { return towerSlots > 0 ? towerSlots : 0; }

    const int towerSlots;  // numLevels * kMax
    unsigned char **outputImageTower = nullptr;
    unsigned char **outputImageDiffTower = nullptr;
    unsigned char *poidsBuffer = nullptr;
    unsigned char *results = nullptr;
    unsigned char *brightImage = nullptr;
    unsigned char *brightImageDark = nullptr;
    unsigned char *smoothImg = nullptr;  // never allocated; released all the same
    float *sharpLUT = nullptr;
};

// Detail gain by difference magnitude, max7 + 1 entries.
void buildSharpeningTable(const FusionConstants &c, float *sharpLUT);
// The parameter line and the level table, on stderr.
void printCommentary(const FusionConstants &c);

// Highlight masks. The byte of one pixel of the raw mask, from the sums of
// the fused and the dark pixel's samples.
unsigned char maskRampByte(int fuseBright, int darkBright, int threshold);
// The raw mask of numPixels pixels of two three-sample images.
void maskRamp(const unsigned char *fused, const unsigned char *dark, size_t numPixels,
              int threshold, unsigned char *mask);
// Blurred mask to bright map: above 50 is 255, the rest stretched by 255 / 50.
void stretchMask(unsigned char *mask, size_t numPixels);
// The raw mask, blurred and stretched into both bright maps; false when a
// buffer could not be made.
bool buildHighlightMasks(const FusionConstants &c, const FusionArgs &args, FusionBuffers &buf);

// Cumulative progress, reported to the host after each stage.
struct Progress {
    ProgressCallback callback;
    float amount = 0.0f;
    // Adds share and reports; false when the host asked to cancel.
    bool advance(float share);
};

// The image and detail towers of every slot; false when one could not be made.
bool allocateTowers(const FusionConstants &c, FusionBuffers &buf);
// Every source image through the pyramid; false when the host cancelled.
bool filterSources(const FusionConstants &c, const FusionArgs &args, FusionBuffers &buf,
                   Progress &prog);
// The weight planes (and the debug results); false when they could not be made.
bool allocateWeightBuffers(const FusionConstants &c, int kMax, FusionBuffers &buf);
// The level-0 weight planes.
void computeRawWeights(const FusionConstants &c, const FusionArgs &args, FusionBuffers &buf,
                       float *coeffErreur);
// Every weight plane through the pyramid, into levels 1 and 2; false when the
// host cancelled.
bool filterWeights(const FusionConstants &c, const FusionArgs &args, FusionBuffers &buf,
                   Progress &prog);
// Clears and writes resImage.
void reconstructOutput(const FusionConstants &c, const FusionArgs &args, FusionBuffers &buf,
                       float *coeffErreur);

}  // namespace lumora
