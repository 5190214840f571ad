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

}  // namespace lumora
