// The public entry points: the fusion and the two combinations of a fused
// result with a dark exposure, and the parameter defaults.
#include "driver/driver.h"
#include "driver/entry_lock.h"

using namespace lumora;

extern "C" LUMORA_API int hx_fusion2(optim_param_struct optimParam, float *fusion2Param,
                                     int kMax, int iMax, int jMax, int origImgSizeX,
                                     int origImgSizeY, int rowOut, int rgb2bgr, int spp,
                                     int bpsIn, int bpsOut, int bitDepthPoids,
                                     unsigned char *fusedResult, unsigned char *imagesBuffer,
                                     unsigned char *hdrImage, unsigned char *resImage,
                                     ProgressCallback callback) {
    const EntryLock serialised;  // released after the clean-up
    return runFusion({optimParam, fusion2Param, kMax, iMax, jMax, origImgSizeX, origImgSizeY,
                      rowOut, rgb2bgr, spp, bpsIn, bpsOut, bitDepthPoids, fusedResult,
                      imagesBuffer, hdrImage, resImage, callback});
}

extern "C" LUMORA_API int hx_combi_realistic(optim_param_struct optim_param,
                                             float *realisticParam, int iMax, int jMax,
                                             int rowOut, int rgb2bgr, int spp, int bpsIn,
                                             int bpsOut, int bitDepthPoids,
                                             unsigned char *fusedResult,
                                             unsigned char *darkImage, unsigned char *resImage,
                                             ProgressCallback callback) {
    const EntryLock serialised;  // before the parameter block is touched
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
