// Level pyramid: results, towers, diff images, the per-level commentary,
// team-size invariance, small images and the edge-preserving effect on a
// photograph.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "internal.h"
#include "test_support.h"

using namespace lumora;

namespace {

using Bytes = std::vector<unsigned char>;

// The fusion driver's kernel growth for an image of this size.
float driverMult(int iMax, int jMax) {
    const int imgSize = (iMax + jMax) / 2;
    const float factorMult = sqrtf((float)imgSize) / 56.56854248046875f * 10.0f;
    return std::max(1.0f, 5.0f * factorMult);
}

struct Towers {
    std::vector<Bytes> images, diffs;
    Bytes out;
    int result = 0;
};

// fusion2a with the driver's parameters (start radius 3, sigmas 0.2), or
// with the bright-map blur's sigmas of 10 for gauss-only runs.
Towers runPyramid(const Bytes &in, int iMax, int jMax, int spp, int numLevels, int nbProc,
                  int gaussOnly = 0, unsigned char *bright = nullptr,
                  unsigned char *cross = nullptr, int bps = 8) {
    const float sigma = gaussOnly ? 10.0f : 0.2f;
    Towers t;
    const size_t bytes = (size_t)iMax * jMax * spp * (bps / 8);
    t.images.assign(numLevels, Bytes(bytes, 0));
    t.diffs.assign(numLevels, Bytes(bytes, 0));
    t.out.assign(bytes, 0);
    std::vector<unsigned char *> imagePtrs, diffPtrs;
    for (int l = 0; l < numLevels; l++) {
        imagePtrs.push_back(t.images[l].data());
        diffPtrs.push_back(t.diffs[l].data());
    }
    srand(0);
    t.result = fusion2a(nbProc, numLevels, 7.0f, driverMult(iMax, jMax), sigma, sigma, gaussOnly,
                        iMax, jMax, spp, bps, const_cast<unsigned char *>(in.data()), spp, bps,
                        cross, bright, nullptr, nullptr, diffPtrs.data(), imagePtrs.data(),
                        t.out.data());
    return t;
}

TEST(Pyramid, NoLevelsCopiesInputAndReturnsOne) {
    const Bytes in = testsupport::randomImage(9, 7, 3, 1);
    const Towers t = runPyramid(in, 9, 7, 3, 0, 2);
    EXPECT_EQ(t.result, 1);
    EXPECT_EQ(t.out, in);
}

// A cross-filter guide is accepted and changes nothing.
TEST(Pyramid, ThreeLevelsReturnFourPrintKernelCountsAndIgnoreCrossFilter) {
    const int iMax = 30, jMax = 24;
    const Bytes in = testsupport::randomImage(iMax, jMax, 1, 2);
    testing::internal::CaptureStderr();
    const Towers t = runPyramid(in, iMax, jMax, 1, 3, 2);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(t.result, 4);
    EXPECT_EQ(t.out, t.images[2]);
    Bytes cross = testsupport::randomImage(iMax, jMax, 1, 4);
    const Towers crossed = runPyramid(in, iMax, jMax, 1, 3, 2, 0, nullptr, cross.data());
    EXPECT_EQ(crossed.images, t.images);
    EXPECT_EQ(crossed.diffs, t.diffs);

    std::string expected;
    int normal[3] = {6, 6, 6}, fine[3] = {13, 13, 13};
    const float sigma = (float)(0.2f * 1.7320508075688772);
    const int size = std::min(iMax, jMax);
    const float mult = driverMult(iMax, jMax);
    for (int l = 0; l < 3; l++) {
        const int n = fastSpatialKernelNumEntries(size, sigma, mult, l, normal);
        const int nFine = fastSpatialKernelNumEntries(size, sigma, mult, l, fine);
        expected += "NUMKERNELENTRIES=" + std::to_string(n) + "\n";
        expected += "NUMFINEKERNELENTRIES=" + std::to_string(nFine) + "\n";
    }
    EXPECT_EQ(err, expected);
}

// The wide gauss-only kernel sums to far more than 1 before it is
// normalised; each level may lose one unit to truncation.
TEST(Pyramid, GaussOnlyNormalisesKernelSoFlatAreaKeepsItsLevel) {
    const Bytes in(24 * 20, 200);
    const Towers t = runPyramid(in, 24, 20, 1, 2, 2, 1);
    for (int l = 0; l < 2; l++)
        for (unsigned char v : t.images[l]) ASSERT_TRUE(v >= 199 - l && v <= 200) << (int)v;
}

// Diff = level input - level output + 128, clamped: a bright spike in black
// and a dark dip in white, blurred plainly, saturate both ways.
TEST(Pyramid, EightBitDiffSaturatesAndIs128WhereUnchanged) {
    const int iMax = 40, jMax = 20;
    Bytes in(iMax * jMax, 0);
    for (int j = 0; j < jMax; j++)
        for (int i = iMax / 2; i < iMax; i++) in[j * iMax + i] = 255;
    in[10 * iMax + 8] = 255;
    in[10 * iMax + 30] = 0;
    const Towers t = runPyramid(in, iMax, jMax, 1, 2, 2, 1);
    for (int l = 0; l < 2; l++) {
        const Bytes &levelIn = l == 0 ? in : t.images[0];
        for (size_t k = 0; k < in.size(); k++)
            ASSERT_EQ(t.diffs[l][k], std::clamp(levelIn[k] - t.images[l][k] + 128, 0, 255)) << k;
    }
    const Bytes &d = t.diffs[0];
    EXPECT_EQ(d[10 * iMax + 8], 255);
    EXPECT_EQ(d[10 * iMax + 30], 0);
    EXPECT_EQ(d[10 * iMax + 2], 128);  // black stays black
}

// 16-bit samples are read as signed: around 32768 a small difference between
// 30000 and 33000 becomes a huge one and saturates.
TEST(Pyramid, SixteenBitDiffReadsSamplesAsSigned) {
    const int iMax = 24, jMax = 20;
    std::vector<uint16_t> in(iMax * jMax);
    for (int j = 0; j < jMax; j++)
        for (int i = 0; i < iMax; i++) in[j * iMax + i] = i < iMax / 2 ? 30000 : 36000;
    Bytes bytes(in.size() * 2);
    std::memcpy(bytes.data(), in.data(), bytes.size());
    const Towers t = runPyramid(bytes, iMax, jMax, 1, 1, 2, 1, nullptr, nullptr, 16);
    const auto *out = reinterpret_cast<const uint16_t *>(t.images[0].data());
    const auto *diff = reinterpret_cast<const uint16_t *>(t.diffs[0].data());
    int straddling = 0;
    for (size_t k = 0; k < in.size(); k++) {
        const int expected = std::clamp((int16_t)in[k] - (int16_t)out[k] + 32768, 0, 65535);
        ASSERT_EQ(diff[k], expected) << k;
        if (in[k] < 32768 && out[k] >= 32768) straddling++;
    }
    EXPECT_GT(straddling, 0);
}

// ---------------------------------------------------------------------------
// Runs that need the CIELab table for RGB input.

class PyramidLab : public testing::Test {
  protected:
    static void SetUpTestSuite() { CIELab_Init(2); }
};

TEST_F(PyramidLab, SameResultForAnyTeamSize) {
    for (auto [iMax, jMax, spp] : {std::tuple{37, 29, 3}, {23, 3, 3}, {31, 5, 1}}) {
        const Bytes in = testsupport::randomImage(iMax, jMax, spp, 5);
        Bytes bright = testsupport::randomImage(iMax, jMax, 1, 6);
        const Towers one = runPyramid(in, iMax, jMax, spp, 2, 1, 0, bright.data());
        for (int threads : {2, 3, 7}) {
            const Towers many = runPyramid(in, iMax, jMax, spp, 2, threads, 0, bright.data());
            EXPECT_EQ(many.images, one.images) << iMax << "x" << jMax << ", " << threads;
            EXPECT_EQ(many.diffs, one.diffs) << iMax << "x" << jMax << ", " << threads;
        }
    }
}

// Kernels reach a row or column past the border on small images with an
// even short side; every kernel choice must stay inside the buffers (run
// under AddressSanitizer to see it).
TEST_F(PyramidLab, SmallAndThinImagesRun) {
    const unsigned char choices[4] = {0, 5, 100, 255};  // copy, normal, mixed, fine
    for (auto [iMax, jMax] : {std::pair{8, 6}, {6, 8}, {1, 9}, {9, 1}, {1, 1}, {2, 2}, {24, 10},
                              {16, 12}, {22, 24}, {25, 24}}) {
        for (int spp : {1, 3}) {
            const Bytes in = testsupport::randomImage(iMax, jMax, spp, 7);
            Bytes bright(iMax * jMax);
            for (size_t k = 0; k < bright.size(); k++) bright[k] = choices[k % 4];
            EXPECT_EQ(runPyramid(in, iMax, jMax, spp, 2, 2, 0, bright.data()).result, 3);
            EXPECT_EQ(runPyramid(in, iMax, jMax, spp, 2, 2, 1).result, 3);
        }
    }
}

// Mean grey level of pixel (x, y) of an RGB image.
float grey(const Bytes &p, int w, int x, int y) {
    const unsigned char *q = &p[(y * w + x) * 3];
    return (q[0] + q[1] + q[2]) / 3.0f;
}

// Mean neighbour difference over the input's flat pixels (5x5 range <= 12)
// and mean step |grey(x+2) - grey(x-2)| over its strong vertical edges
// (input step >= 60), measured on an output image.
struct EdgeStats {
    float flatNoise;
    float edgeStep;
};
EdgeStats measure(const Bytes &in, const Bytes &out, int w, int h) {
    double noise = 0, step = 0;
    int numFlat = 0, numEdge = 0;
    for (int y = 2; y < h - 2; y++)
        for (int x = 2; x < w - 2; x++) {
            float lo = 255, hi = 0;
            for (int dy = -2; dy <= 2; dy++)
                for (int dx = -2; dx <= 2; dx++) {
                    lo = std::min(lo, grey(in, w, x + dx, y + dy));
                    hi = std::max(hi, grey(in, w, x + dx, y + dy));
                }
            if (hi - lo <= 12) {
                numFlat++;
                noise += std::fabs(grey(out, w, x + 1, y) - grey(out, w, x, y)) +
                         std::fabs(grey(out, w, x, y + 1) - grey(out, w, x, y));
            }
            if (std::fabs(grey(in, w, x + 2, y) - grey(in, w, x - 2, y)) >= 60) {
                numEdge++;
                step += std::fabs(grey(out, w, x + 2, y) - grey(out, w, x - 2, y));
            }
        }
    EXPECT_GT(numFlat, 1000);
    EXPECT_GT(numEdge, 500);
    return {(float)(noise / numFlat), (float)(step / numEdge)};
}

// A window of the sample photograph (frames, plants, wall) through the
// driver's two levels. The range weights must make the difference: against
// the gauss-only pass of the same kernels, the flat areas end at least as
// smooth while the frames keep several times more of their step. A copy
// fails the noise bounds; a plain blur, light or heavy, fails one or other.
TEST_F(PyramidLab, PhotoFlatAreasSmoothedWhileFramesKeepTheirStep) {
    const testsupport::RgbImage photo = testsupport::loadSample(1);
    ASSERT_EQ(photo.width, 512);
    const int x0 = 0, y0 = 100, w = 160, h = 120;
    Bytes crop(w * h * 3);
    for (int j = 0; j < h; j++)
        std::memcpy(&crop[j * w * 3], &photo.pixels[((y0 + j) * photo.width + x0) * 3], w * 3);

    const Towers filtered = runPyramid(crop, w, h, 3, 2, 2);
    Towers blurred;
    {  // the same kernels without range weights
        blurred.images.assign(2, Bytes(crop.size()));
        unsigned char *tower[2] = {blurred.images[0].data(), blurred.images[1].data()};
        srand(0);
        fusion2a(2, 2, 7.0f, driverMult(w, h), 0.2f, 0.2f, 1, w, h, 3, 8, crop.data(), 3, 8,
                 nullptr, nullptr, nullptr, nullptr, nullptr, tower, nullptr);
    }
    const EdgeStats input = measure(crop, crop, w, h);
    const EdgeStats level1 = measure(crop, filtered.images[0], w, h);
    const EdgeStats level2 = measure(crop, filtered.images[1], w, h);
    const EdgeStats plain2 = measure(crop, blurred.images[1], w, h);

    EXPECT_LT(level1.flatNoise, 0.5f * input.flatNoise);
    EXPECT_LT(level2.flatNoise, 0.4f * input.flatNoise);
    EXPECT_LE(level2.flatNoise, plain2.flatNoise);
    EXPECT_GT(level2.edgeStep, 3.0f * plain2.edgeStep);
}

}  // namespace
