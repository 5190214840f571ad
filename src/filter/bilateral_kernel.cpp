// Colour-distance bilateral kernel of one pixel: the level's sparse spatial
// kernel, each weight multiplied by a range weight read from expLut, then
// normalised.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "filter/filter.h"
#include "diag/diag.h"
#include "image/image.h"
#include "tables/tables.h"

namespace lumora {
namespace {

// Renders a kernel as a one-sample picture (each pixel shows its nearest
// entry, scaled so that the largest weight is 255) and writes it as a JPEG.
void saveKernelImage(const KernelEntry *kernel, int numKernelEntries) {
    const KernelEntry &first = kernel[0];
    const KernelEntry &last = kernel[numKernelEntries - 1];
    const int width = last.xpos - first.xpos + 1;
    const int height = last.ypos - first.ypos + 1;
    if (width <= 0 || height <= 0) return;

    float maxFactor = 0.0f;
    for (int e = 0; e < numKernelEntries; e++)
        if (kernel[e].factor > maxFactor) maxFactor = kernel[e].factor;

    unsigned char *picture = static_cast<unsigned char *>(allocate((size_t)width * height));
    if (picture == nullptr) return;
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            int nearest = 0;
            int nearestDist = width * height;
            for (int e = 0; e < numKernelEntries; e++) {
                const int dx = kernel[e].xpos - first.xpos - x;
                const int dy = kernel[e].ypos - first.ypos - y;
                const int dist = dx * dx + dy * dy;
                if (dist < nearestDist) {  // the first entry wins a tie
                    nearestDist = dist;
                    nearest = e;
                }
            }
            picture[y * width + x] =
                (unsigned char)(int)(kernel[nearest].factor / maxFactor * 255.0f);
        }
    }
    char name[64];
    std::snprintf(name, sizeof name, "bilateralKernel-%d-lev%d.jpg", __k, __level);
    saveTestImage(name, width, height, 1, 8, picture);
    release(picture);
}

// The range weight of entry k, whose brightness is in its factor: by the
// squared CIELab distance to the centre entry for three samples, by the
// brightness difference otherwise.
float rangeWeight(const KernelEntry &k, const KernelEntry &centre, float centreBrightness,
                  int spp, const float *expLut) {
    if (spp == 3) {
        const float dL = k.L - centre.L;
        const float dA = k.A - centre.A;
        const float dB = k.B - centre.B;
        float distSqd = dL * dL + dA * dA + dB * dB;
        // Past the table: its last entry, EXP_LUT_ENTRIES - 1.
        if (distSqd >= (float)EXP_LUT_ENTRIES) distSqd = (float)(EXP_LUT_ENTRIES - 1);
        return expLut[(int)distSqd];
    }
    // Kept: no clamp; a 16-bit difference can pass the table's end.
    return expLut[(int)std::fabs(k.factor - centreBrightness)];
}

}  // namespace

// logLut, rgbeExpLut and sigma are not read: the range sigma is baked into
// expLut.
void fusion2f(int iMax, int jMax, int sppx, int bps, int rowStride, ImageWithBorder *img,
              float *expLut, float *logLut, float *rgbeExpLut, int posX, int posY,
              int kernelSize, float sigma, int numKernelEntries, KernelEntry *spatialKernel,
              KernelEntry *kernel) {
    const int spp = sppx;
    const int halfKernelSize = kernelSize >> 1;
    const int externalBorderSpace = img->mainImageHasBorders ? 0 : halfKernelSize;

    for (int e = 0; e < numKernelEntries; e++) kernel[e] = spatialKernel[e];

    // The middle entry is taken as the pixel itself.
    KernelEntry *centreEntry = kernel + numKernelEntries / 2;
    BF_ASSERT_TEXT(centreEntry != nullptr, "centreEntry != ((void *)0)");
    BF_ASSERT(halfKernelSize <= img->borderWidth);

    // Deliberate: the interior test is strict, so a pixel exactly
    // externalBorderSpace from an edge goes through imageData.
    const bool direct = img->mainImageHasBorders ||
                        (posX > externalBorderSpace && posX < iMax - externalBorderSpace &&
                         posY > externalBorderSpace && posY < jMax - externalBorderSpace);

    // Brightness (and CIELab for 8-bit RGB) of the pixel under every entry.
    for (int e = 0; e < numKernelEntries; e++) {
        KernelEntry &k = kernel[e];
        const int x = posX - externalBorderSpace + k.xpos;
        const int y = posY - externalBorderSpace + k.ypos;
        const size_t element = (size_t)y * rowStride + (size_t)x * spp;
        // Deliberate: the sum starts from the copied spatial weight, so the
        // brightness carries that small offset.
        if (bps == 8) {
            const unsigned char *p = direct ? img->image + element
                                            : imageData(iMax, jMax, spp, bps, rowStride, img, x, y);
            for (int s = 0; s < spp; s++) k.factor = k.factor + (float)p[s];
            k.factor = k.factor / (float)spp;
            if (spp == 3) {
                const LABData &lab = labLUT[p[0]][p[1]][p[2]];
                k.L = lab.l;
                k.A = lab.a;
                k.B = lab.b;
            }
        } else {
            // 16-bit levels: never passed by the fusion driver, kept for other callers.
            const unsigned short *p =
                direct ? reinterpret_cast<unsigned short *>(img->image) + element
                       : reinterpret_cast<unsigned short *>(
                             imageData(iMax, jMax, spp, bps, rowStride, img, x, y));
            for (int s = 0; s < spp; s++) k.factor = k.factor + (float)p[s];
            k.factor = k.factor / (float)spp;
            // Kept: 16-bit RGB compares the L, A, B copied from the spatial kernel.
        }
    }

    const float centreBrightness = centreEntry->factor;
    float kernelSum = 0.0f;
    for (int e = 0; e < numKernelEntries; e++) {
        KernelEntry &k = kernel[e];
        const float weight = spatialKernel[e].factor *
                             rangeWeight(k, *centreEntry, centreBrightness, spp, expLut);
        k.factor = weight;
        kernelSum = kernelSum + weight;
    }

    // Deliberate: the sum is truncated to an integer before the test, so a
    // sum whose magnitude is below 1 leaves the weights unnormalised.
    if ((double)std::abs((int)kernelSum) > 1e-5)
        for (int e = 0; e < numKernelEntries; e++) kernel[e].factor = kernel[e].factor / kernelSum;

    if (dbgTestImage && posX == 112 && posY == 410) saveKernelImage(kernel, numKernelEntries);
}

}  // namespace lumora
