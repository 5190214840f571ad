// Per-pixel filter: the colour-distance kernel and the sparse convolutions.
#include <gtest/gtest.h>

#include <vector>

#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;

using testsupport::Bytes;

namespace {

// A table whose entries all differ, including the one past the end: (i + 1) / 32768.
std::vector<float> distinctLut() {
    std::vector<float> lut(EXP_LUT_ENTRIES + 1);
    for (int i = 0; i <= EXP_LUT_ENTRIES; i++) lut[i] = (float)(i + 1) / 32768.0f;
    return lut;
}

// Kernel of pixel (1, 0) of a row of three pixels in a built-in border of
// width 1, one spatial entry per pixel; the middle one is the centre.
std::vector<KernelEntry> rowKernel(int spp, const std::vector<std::vector<int>> &pixels,
                                   const std::vector<float> &factors, float *expLut) {
    Bytes buffer(5 * 3 * spp, 0);
    for (int x = 0; x < 3; x++)
        for (int s = 0; s < spp; s++) buffer[(5 + 1 + x) * spp + s] = (unsigned char)pixels[x][s];
    ImageWithBorder img{.image = buffer.data(), .borderWidth = 1, .mainImageHasBorders = 1};
    std::vector<KernelEntry> spatial, kernel(3);
    for (int x = 0; x < 3; x++) spatial.push_back({x, 1, factors[x], -1.0f, -2.0f, -3.0f});
    fusion2f(3, 1, spp, 8, 5 * spp, &img, expLut, nullptr, nullptr, 1, 0, 3, 0.2f, 3,
             spatial.data(), kernel.data());
    return kernel;
}

}  // namespace

TEST(Fusion2f, RangeWeightIndexClampedAndSmallSumsLeftUnnormalised) {
    CIELab_Init(2);
    std::vector<float> lut = distinctLut();
    const std::vector<int> olive = {90, 140, 30}, red = {255, 0, 0}, green = {0, 255, 0};
    // Flat area: spatial weight times expLut[0]; the sum 0.45 * 0.5 < 1 is kept.
    lut[0] = 0.5f;
    auto k = rowKernel(3, {olive, olive, olive}, {0.2f, 0.3f, 0.4f}, lut.data());
    EXPECT_EQ(k[0].factor, 0.2f * 0.5f);
    EXPECT_EQ(k[2].factor, 0.4f * 0.5f);
    EXPECT_EQ(k[1].L, labLUT[90][140][30].l);
    // A sum of 2.7 is divided out in single precision.
    lut[0] = 1.0f;
    k = rowKernel(3, {olive, olive, olive}, {0.8f, 0.9f, 1.0f}, lut.data());
    EXPECT_EQ(k[0].factor, 0.8f / (0.8f + 0.9f + 1.0f));
    // Green beside red lies far beyond a squared distance of 20000: entry 19999.
    k = rowKernel(3, {green, red, green}, {0.1f, 0.1f, 0.1f}, lut.data());
    EXPECT_EQ(k[0].factor, 0.1f * lut[19999]);
    EXPECT_EQ(k[1].factor, 0.1f);
    // One sample: distances between sample + spatial weight (10.95, 13, 20.5),
    // truncated: entries 2 and 7, not 3 and 7.
    lut = distinctLut();
    k = rowKernel(1, {{10}, {13}, {20}}, {0.95f, 0.0f, 0.5f}, lut.data());
    EXPECT_EQ(k[0].factor, 0.95f * lut[2]);
    EXPECT_EQ(k[2].factor, 0.5f * lut[7]);
    EXPECT_EQ(k[0].L, -1.0f);  // copied through for non-RGB images
}

TEST(FilterDeathTest, MissingCentreNarrowBorderAndBuiltInEdgeInputAbort) {
    Bytes buffer(64, 0);
    ImageWithBorder img{.image = buffer.data(), .borderWidth = 1, .mainImageHasBorders = 1};
    float lut[4] = {1, 1, 1, 1};
    KernelEntry one[1] = {{0, 0, 1.0f, 0, 0, 0}}, out[1];
    EXPECT_DEATH(fusion2f(2, 2, 1, 8, 4, &img, lut, nullptr, nullptr, 0, 0, 3, 0.2f, 0, nullptr,
                          nullptr),
                 "fusion2f: Assertion `centreEntry != \\(\\(void \\*\\)0\\)' failed");
    EXPECT_DEATH(fusion2f(2, 2, 1, 8, 4, &img, lut, nullptr, nullptr, 0, 0, 5, 0.2f, 1, one, out),
                 "fusion2f: Assertion `halfKernelSize <= img->borderWidth' failed");
    EXPECT_DEATH(convolveFastIncludingEdges(&img, buffer.data(), 2, 2, 3, 8, 6, nullptr, 0, 0, 1,
                                            one, 1),
                 "convolveFastIncludingEdges: Assertion `!img->mainImageHasBorders' failed");
}

TEST(Convolution, StoresTheLowBitsOfTheTruncatedSum) {
    unsigned char white[2] = {255, 255}, out;
    KernelEntry over[2] = {{0, 0, 0.505f, 0, 0, 0}, {1, 0, 0.505f, 0, 0, 0}};  // 257.55
    convolveFastSimple8(white, &out, 1, 2, nullptr, nullptr, 2, over);
    EXPECT_EQ(out, 1);
    KernelEntry almost{0, 0, 254.9999f / 255.0f, 0, 0, 0};
    convolveFastSimple8(white, &out, 1, 1, nullptr, nullptr, 1, &almost);
    EXPECT_EQ(out, 254);
}
