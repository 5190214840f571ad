// Diagnostics: the assertion report, profiling stubs, debug switches and the
// debug image dumps.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag/diag.h"
#include "image/image.h"
#include "tables/tables.h"

// Profiling slots exported for the host; the module never touches them.
extern "C" {
LUMORA_API float bil1 = 0.0f, bil2 = 0.0f, bil3 = 0.0f, bil4 = 0.0f, bil5 = 0.0f;
LUMORA_API TimeInfo bilt1 = 0, bilt2 = 0, bilt3 = 0, bilt4 = 0, bilt5 = 0;
}

// Profiling is switched off in this build.
extern "C" LUMORA_API void ProfileLog(const char *format, ...) { (void)format; }

namespace lumora {

int dbgTestImage = 0;
int __k = 0;
int __level = 0;

void assertionFailed(const char *expression, int line, const char *function) {
    // The usual assertion format, with the module's name as the source.
    std::fprintf(stderr, "%s: BilateralFilter:%d: %s: Assertion `%s' failed.\n",
                 program_invocation_short_name, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

namespace {

// Hands an 8-bit RGB picture to the host writer. The quality (97 or 85) and
// the two fields of 100 (the resolution) are the host's business.
void writeRgb(const char *name, int quality, int width, int height, unsigned char *pixels) {
    int saveInfos[14] = {};
    saveInfos[0] = width;
    saveInfos[1] = height;
    saveInfos[2] = 3;
    saveInfos[3] = 8;
    saveInfos[4] = 100;
    saveInfos[5] = 100;
    // A failed debug dump is not worth reporting.
    HXwritejpg(name, quality, saveInfos, width * 3, 0, 0, nullptr, 0, nullptr, 0, nullptr, pixels);
}

// Writes a bordered 8-bit image (spp 3 or 1) framed by its outside borders.
void saveWithEdges(const char *name, int iMax, int jMax, int spp, ImageWithBorder *img) {
    const int bw = img->borderWidth;
    if (img->mainImageHasBorders) {
        saveTestImage(name, iMax + 2 * bw, jMax + 2 * bw, spp, 8, img->image);
        return;
    }
    const int width = iMax + 2 * bw;
    const int height = jMax + 2 * bw;
    unsigned char *picture = static_cast<unsigned char *>(allocate(static_cast<size_t>(width) * height * 3));
    if (picture == nullptr) return;  // nothing saved, as for any dump short of memory
    unsigned char *out = picture;
    for (int y = -bw; y < jMax + bw; ++y) {
        for (int x = -bw; x < iMax + bw; ++x) {
            const unsigned char *p = imageData(iMax, jMax, spp, 8, iMax * spp, img, x, y);
            for (int s = 0; s < 3; ++s) *out++ = p[spp == 3 ? s : 0];
        }
    }
    // Kept: the reported new size adds the border width once, although the
    // picture grows by twice the border width.
    std::fprintf(stderr, "Old size: %d x %d  New size: %d x %d\n", iMax, jMax, iMax + bw, jMax + bw);
    writeRgb(name, 85, width, height, picture);
    release(picture);
}

// The level's input mapped through the CIELab table into a viewable picture.
void saveLabImage(const unsigned char *input, int iMax, int jMax, const char *name) {
    const size_t numPixels = (size_t)iMax * jMax;
    unsigned char *picture = static_cast<unsigned char *>(allocate(numPixels * 3));
    if (picture == nullptr) return;
    for (size_t p = 0; p < numPixels; p++) {
        const unsigned char *rgb = input + p * 3;
        const LABData &lab = labLUT[rgb[0]][rgb[1]][rgb[2]];
        picture[p * 3 + 0] = (unsigned char)(int)(lab.l * 255.0f / 200.0f);
        picture[p * 3 + 1] = (unsigned char)(int)(lab.a * 255.0f / 300.0f);
        picture[p * 3 + 2] = (unsigned char)(int)(lab.b * 255.0f / 300.0f);
    }
    saveTestImage(name, iMax, jMax, 3, 8, picture);
    release(picture);
}

}  // namespace

void dumpLevelInput(int iMax, int jMax, int spp, int bps, unsigned char *input) {
    if (!dbgTestImage) return;
    char name[64];
    std::snprintf(name, sizeof name, "mask-%d-before.jpg", __k);
    saveTestImage(name, iMax, jMax, spp, bps, input);
}

void dumpLevelWorkingImage(int iMax, int jMax, int spp, int bps, ImageWithBorder *img, int level) {
    if (!dbgTestImage || bps != 8) return;
    char name[64];
    if (spp == 3 || spp == 1) {
        std::snprintf(name, sizeof name, "mask-with-edges-%d-lev%d.jpg", __k, level);
        if (spp == 3)
            saveTestImage8_3SamplesWithEdges(name, iMax, jMax, img);
        else
            saveTestImage8_1SampleWithEdges(name, iMax, jMax, img);
    }
    if (spp == 3) {
        std::snprintf(name, sizeof name, "lab-img-%d-lev%d.jpg", __k, level);
        saveLabImage(img->inputImage, iMax, jMax, name);
    }
}

void dumpLevelOutput(int iMax, int jMax, int spp, int bps, unsigned char *output, int level) {
    if (!dbgTestImage) return;
    char name[64];
    std::snprintf(name, sizeof name, "mask-after-%d-lev%d.jpg", __k, level);
    saveTestImage(name, iMax, jMax, spp, bps, output);
}

void saveTestImage8_3SamplesWithEdges(const char *name, int iMax, int jMax, ImageWithBorder *img) {
    saveWithEdges(name, iMax, jMax, 3, img);
}

void saveTestImage8_1SampleWithEdges(const char *name, int iMax, int jMax, ImageWithBorder *img) {
    saveWithEdges(name, iMax, jMax, 1, img);
}

}  // namespace lumora

extern "C" LUMORA_API void saveTestImage(const char *name, int iMax, int jMax, int sppImg,
                                         int bpsImg, unsigned char *img) {
    unsigned char *converted = nullptr;
    unsigned char *pixels = img;
    if (!(bpsImg == 8 && sppImg == 3)) {
        const size_t numPixels = static_cast<size_t>(iMax) * jMax;
        converted = static_cast<unsigned char *>(lumora::allocate(numPixels * 3));
        // A dump is a debugging aid: without memory for it, nothing is saved.
        if (converted == nullptr) return;
        unsigned char *out = converted;
        if (sppImg == 1) {
            for (size_t n = 0; n < numPixels; ++n) {
                unsigned char v;
                if (bpsImg == 8) {
                    v = img[n];
                } else {
                    unsigned short w;
                    std::memcpy(&w, img + 2 * n, 2);
                    v = static_cast<unsigned char>(w >> 8);
                }
                *out++ = v;
                *out++ = v;
                *out++ = v;
            }
        } else {
            // Kept: every sample is read as a 16-bit word whatever bpsImg
            // says, and only three bytes per pixel are reserved. This branch
            // serves 16-bit RGB.
            const size_t numSamples = numPixels * sppImg;
            for (size_t n = 0; n < numSamples; ++n) {
                unsigned short w;
                std::memcpy(&w, img + 2 * n, 2);
                *out++ = static_cast<unsigned char>(w >> 8);
            }
        }
        pixels = converted;
    }
    lumora::writeRgb(name, 97, iMax, jMax, pixels);
    lumora::release(converted);
}

extern "C" LUMORA_API void dbgSaveTestImage(const char *name, int iMax, int jMax, int sppImg,
                                            int bpsImg, unsigned char *img) {
    if (lumora::dbgTestImage) saveTestImage(name, iMax, jMax, sppImg, bpsImg, img);
}
