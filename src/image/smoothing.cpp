// 3x3 box smoothing, shared among the members of a running thread team.
#include <omp.h>

#include <cstring>

#include "core/switches.h"
#include "image/image.h"

namespace lumora {
namespace {

// One interior row: every sample but those of the first and the last pixel
// becomes the truncated mean of the nine samples of its channel around it;
// those two pixels are copied.
template <typename Sample>
void smoothRow(const Sample *prev, const Sample *cur, const Sample *next, Sample *out,
               int rowStride, int spp) {
    for (int i = 0; i < rowStride; i++) {
        if (i < spp || i >= rowStride - spp) {
            out[i] = cur[i];
            continue;
        }
        const int sum = prev[i - spp] + prev[i] + prev[i + spp] +
                        cur[i - spp] + cur[i] + cur[i + spp] +
                        next[i - spp] + next[i] + next[i + spp];
        out[i] = static_cast<Sample>(sum / 9);  // truncating, no rounding term
    }
}

template <typename Sample>
void smoothRows(const unsigned char *inImage, unsigned char *outImage, int rowStride, int spp,
                int j) {
    const Sample *in = reinterpret_cast<const Sample *>(inImage);
    Sample *out = reinterpret_cast<Sample *>(outImage);
    smoothRow(in + (size_t)(j - 1) * rowStride, in + (size_t)j * rowStride,
              in + (size_t)(j + 1) * rowStride, out + (size_t)j * rowStride, rowStride, spp);
}

}  // namespace
}  // namespace lumora

extern "C" LUMORA_API void smoothImage3x3(unsigned char *inImage, int iMax, int jMax, int spp,
                                          int bps, unsigned char *outImage) {
    using namespace lumora;
    // An empty image has no row 0 to copy.
    if (iMax <= 0 || jMax <= 0) return;

    const int rowStride = iMax * spp;
    const int threadNum = omp_get_thread_num();  // 0 outside a parallel region

    if (threadNum == 0) std::memcpy(outImage, inImage, (size_t)rowStride * (bps / 8));

    if (bps == 8) {
        // Orphaned work-sharing loop: binds to the caller's team, or runs
        // serially when the caller is not in a parallel region. Its closing
        // barrier makes every row complete before any member returns.
        // The SIMD rows give the same bytes; the switch picks the reference.
        const bool simdRows = !usePlainPath;
#pragma omp for schedule(dynamic, 1)
        for (int j = 1; j < jMax - 1; j++) {
            if (simdRows)
                simd::smoothRow8(inImage + (size_t)(j - 1) * rowStride,
                               inImage + (size_t)j * rowStride,
                               inImage + (size_t)(j + 1) * rowStride,
                               outImage + (size_t)j * rowStride, rowStride, spp);
            else
                smoothRows<unsigned char>(inImage, outImage, rowStride, spp, j);
        }
    } else if (threadNum == 0) {
        // 16-bit rows are meant to be written whole by every member; letting
        // thread 0 alone write them gives the same bytes without the data
        // race. No barrier here: the 16-bit path never had one.
        for (int j = 1; j < jMax - 1; j++)
            smoothRows<unsigned short>(inImage, outImage, rowStride, spp, j);
    }

    // Kept: the last-row offset is (jMax-1)*rowStride BYTES, not samples. For
    // 16-bit images this copies one row of input into the middle of the
    // output and leaves the true last output row untouched.
    if (threadNum == 0)
        std::memcpy(outImage + (size_t)(jMax - 1) * rowStride,
                    inImage + (size_t)(jMax - 1) * rowStride, (size_t)iMax * spp * (bps / 8));
}
