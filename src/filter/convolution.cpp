// Sparse convolution of one output pixel with its per-pixel bilateral kernel.
//
// The kernel arrives with its final, normalised weights: these functions only
// gather, multiply and add. Sums are single precision, in kernel order, and
// the stores truncate and keep the low bits without clamping, so a weight sum
// slightly above 1 on white wraps around.
#include "filter/filter.h"
#include "image/image.h"

namespace lumora {

namespace {

// One output pixel of Sample-typed data: per sample, the weighted sum over the
// entries in kernel order, truncated to int and stored as its low bits
// (deliberately no clamp: 256 wraps to 0 in bytes).
template <typename Sample>
void convolveDirect(const Sample *in, Sample *out, int spp, int rowStride, int numKernelEntries,
                    const KernelEntry *bilateralKernel) {
    for (int s = 0; s < spp; s++) {
        float sum = 0.0f;
        for (int e = 0; e < numKernelEntries; e++) {
            const KernelEntry &k = bilateralKernel[e];
            sum = sum + (float)in[s + k.ypos * rowStride + k.xpos * spp] * k.factor;
        }
        out[s] = (Sample)(int)sum;
    }
}

}  // namespace

// logLut and unLogLut are not read: the range weighting is already in the
// kernel. They keep the three functions on one calling shape.
void convolveFastSimple8(unsigned char *inImgPtr, unsigned char *outImgPtr, int spp,
                         int rowStride, float *logLut, float *unLogLut, int numKernelEntries,
                         KernelEntry *bilateralKernel) {
    convolveDirect(inImgPtr, outImgPtr, spp, rowStride, numKernelEntries, bilateralKernel);
}

// The two functions below serve only 16-bit levels and images without a
// built-in border, which the fusion driver never passes: kept for other
// callers, off the live path.

// kernelSize is not read either.
void convolveFastSimple16(unsigned short *inImgPtr, unsigned short *outImgPtr, int spp,
                          int rowStride, float *logLut, float *unLogLut, int numKernelEntries,
                          KernelEntry *bilateralKernel, int kernelSize) {
    convolveDirect(inImgPtr, outImgPtr, spp, rowStride, numKernelEntries, bilateralKernel);
}

// For images whose borders live in separate buffers: every entry's pixel is
// found through imageData, which resolves the image, its borders and the
// corners (corners belong to the top and bottom borders).
void convolveFastIncludingEdges(ImageWithBorder *img, unsigned char *outImgPtr, int iMax,
                                int jMax, int spp, int bps, int rowStride, float *logLut,
                                int posX, int posY, int numKernelEntries,
                                KernelEntry *bilateralKernel, int kernelSize) {
    BF_ASSERT(!img->mainImageHasBorders);
    const int halfKernelSize = kernelSize >> 1;

    // One sum per sample, each over the entries in kernel order: the same
    // additions as accumulating all samples entry by entry, with no buffer.
    for (int s = 0; s < spp; s++) {
        float sum = 0.0f;
        for (int e = 0; e < numKernelEntries; e++) {
            const KernelEntry &k = bilateralKernel[e];
            const int x = posX - halfKernelSize + k.xpos;
            const int y = posY - halfKernelSize + k.ypos;
            unsigned char *p = imageData(iMax, jMax, spp, bps, rowStride, img, x, y);
            const float sample = bps == 8 ? (float)p[s]
                                          : (float)reinterpret_cast<unsigned short *>(p)[s];
            sum = sum + sample * k.factor;
        }
        if (bps == 8)
            outImgPtr[s] = (unsigned char)(int)sum;
        else
            reinterpret_cast<unsigned short *>(outImgPtr)[s] = (unsigned short)(int)sum;
    }
}

}  // namespace lumora
