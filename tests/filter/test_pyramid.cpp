// Level pyramid: results, towers, diff images, the per-level commentary, team
// sizes, small images and the edge-preserving effect on a photograph.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;

using Bytes = std::vector<unsigned char>;

namespace {

struct Towers {
    std::vector<Bytes> images, diffs;
    Bytes out;
    int result = 0;
};

// 8-bit fusion2a with the driver's parameters (start radius 3, sigmas 0.2,
// kernel growth from the image size), or gauss-only with sigmas gaussSigma.
Towers runPyramid(const Bytes &in, int iMax, int jMax, int spp, int numLevels, int nbProc,
                  float gaussSigma = 0, unsigned char *bright = nullptr,
                  unsigned char *cross = nullptr) {
    const float sigma = gaussSigma ? gaussSigma : 0.2f;
    const float mult = 5.0f * (sqrtf((float)((iMax + jMax) / 2)) / 56.56854248046875f * 10.0f);
    Towers t{std::vector<Bytes>(numLevels, Bytes(in.size())), {}, Bytes(in.size())};
    t.diffs = t.images;
    std::vector<unsigned char *> images, diffs;
    for (int l = 0; l < numLevels; l++) {
        images.push_back(t.images[l].data());
        diffs.push_back(t.diffs[l].data());
    }
    srand(0);
    t.result = fusion2a(nbProc, numLevels, 7.0f, std::max(1.0f, mult), sigma, sigma,
                        gaussSigma != 0, iMax, jMax, spp, 8, const_cast<unsigned char *>(in.data()),
                        spp, 8, cross, bright, nullptr, nullptr, diffs.data(), images.data(),
                        t.out.data());
    return t;
}

}  // namespace

TEST(Pyramid, ReturnsLevelsPlusOnePrintsKernelSizesAndIgnoresCrossFilter) {
    const int iMax = 30, jMax = 24;
    const Bytes in = testsupport::randomImage(iMax, jMax, 1, 2);
    const Towers none = runPyramid(in, iMax, jMax, 1, 0, 2);
    EXPECT_EQ(none.result, 1);
    EXPECT_EQ(none.out, in);
    testing::internal::CaptureStderr();
    const Towers t = runPyramid(in, iMax, jMax, 1, 3, 2);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(t.result, 4);
    EXPECT_EQ(t.out, t.images[2]);
    std::string want;  // two lines per level
    for (int l = 0; l < 3; l++) want += "NUMKERNELENTRIES=121\nNUMFINEKERNELENTRIES=577\n";
    EXPECT_EQ(err, want);
    Bytes cross = testsupport::randomImage(iMax, jMax, 1, 4);
    const Towers crossed = runPyramid(in, iMax, jMax, 1, 3, 2, 0, nullptr, cross.data());
    EXPECT_EQ(crossed.images, t.images);
    EXPECT_EQ(crossed.diffs, t.diffs);
}

// The wide gauss-only kernel sums to far more than 1 before it is normalised;
// each level may lose one unit to truncation.
TEST(Pyramid, GaussOnlyNormalisesKernelSoFlatAreaKeepsItsLevel) {
    const Towers t = runPyramid(Bytes(24 * 20, 200), 24, 20, 1, 2, 2, 10);
    for (int l = 0; l < 2; l++)
        for (unsigned char v : t.images[l]) ASSERT_TRUE(v >= 199 - l && v <= 200) << (int)v;
}

// Diff = level input - level output + 128, clamped: a bright spike in black
// and a dark dip in white, blurred plainly, saturate both ways.
TEST(Pyramid, EightBitDiffSaturatesAndIs128WhereUnchanged) {
    const int iMax = 40, jMax = 20;
    Bytes in(iMax * jMax, 0);
    for (int j = 0; j < jMax; j++) std::fill_n(&in[j * iMax + iMax / 2], iMax / 2, 255);
    in[10 * iMax + 8] = 255;
    in[10 * iMax + 30] = 0;
    const Towers t = runPyramid(in, iMax, jMax, 1, 2, 2, 10);
    for (int l = 0; l < 2; l++) {
        const Bytes &levelIn = l == 0 ? in : t.images[0];
        for (size_t k = 0; k < in.size(); k++)
            ASSERT_EQ(t.diffs[l][k], std::clamp(levelIn[k] - t.images[l][k] + 128, 0, 255)) << k;
    }
    EXPECT_EQ(t.diffs[0][10 * iMax + 8], 255);
    EXPECT_EQ(t.diffs[0][10 * iMax + 30], 0);
    EXPECT_EQ(t.diffs[0][10 * iMax + 2], 128);  // black stays black
}

// Kernels reach a row or column past the border on small images with an even
// short side: every kernel choice must stay inside the buffers (run under
// AddressSanitizer to see it). No team size may change a byte.
TEST(Pyramid, SmallAndThinImagesRunAndAgreeForAnyTeamSize) {
    CIELab_Init(2);
    const unsigned char choices[4] = {0, 5, 100, 255};  // copy, normal, mixed, fine
    for (auto [iMax, jMax] : {std::pair{8, 6}, {6, 8}, {1, 9}, {9, 1}, {1, 1}, {2, 2}, {24, 10},
                              {16, 12}, {22, 24}, {25, 24}, {23, 3}, {37, 29}}) {
        for (int spp : {1, 3}) {
            const Bytes in = testsupport::randomImage(iMax, jMax, spp, 7);
            Bytes bright(iMax * jMax);
            for (size_t k = 0; k < bright.size(); k++) bright[k] = choices[k % 4];
            const Towers one = runPyramid(in, iMax, jMax, spp, 2, 1, 0, bright.data());
            EXPECT_EQ(one.result, 3);
            const Towers three = runPyramid(in, iMax, jMax, spp, 2, 3, 0, bright.data());
            EXPECT_TRUE(three.images == one.images && three.diffs == one.diffs)
                << iMax << "x" << jMax << " spp " << spp;
            EXPECT_EQ(runPyramid(in, iMax, jMax, spp, 2, 2, 10).result, 3);
        }
    }
}

namespace {

// Mean grey level of pixel (x, y) of a w-pixel-wide RGB image.
float grey(const Bytes &p, int w, int x, int y) {
    return (p[(y * w + x) * 3] + p[(y * w + x) * 3 + 1] + p[(y * w + x) * 3 + 2]) / 3.0f;
}

// Mean neighbour difference of out over the input's flat pixels (5x5 range
// <= 12), and its mean step |grey(x+2) - grey(x-2)| over the input's strong
// vertical edges (step >= 60).
std::pair<float, float> noiseAndEdgeStep(const Bytes &in, const Bytes &out, int w, int h) {
    double noise = 0, step = 0;
    int numFlat = 0, numEdge = 0;
    for (int y = 2; y < h - 2; y++)
        for (int x = 2; x < w - 2; x++) {
            float lo = 255, hi = 0;
            for (int d = 0; d < 25; d++) {
                lo = std::min(lo, grey(in, w, x + d % 5 - 2, y + d / 5 - 2));
                hi = std::max(hi, grey(in, w, x + d % 5 - 2, y + d / 5 - 2));
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

}  // namespace

// A window of the sample photograph (frames, plants, wall) through the
// driver's two levels. Against the gauss-only pass of the same kernels the
// flat areas end at least as smooth while the frames keep several times more
// of their step: a copy fails the noise bounds, a plain blur one or other.
TEST(Pyramid, PhotoFlatAreasSmoothedWhileFramesKeepTheirStep) {
    CIELab_Init(2);
    const testsupport::RgbImage photo = testsupport::loadSample(1);
    ASSERT_EQ(photo.width, 512);
    const int y0 = 100, w = 160, h = 120;
    Bytes crop(w * h * 3);
    for (int j = 0; j < h; j++)
        std::memcpy(&crop[j * w * 3], &photo.pixels[(y0 + j) * photo.width * 3], w * 3);
    const Towers filtered = runPyramid(crop, w, h, 3, 2, 2);
    const Towers blurred = runPyramid(crop, w, h, 3, 2, 2, 0.2f);  // no range weights
    const auto [inputNoise, inputStep] = noiseAndEdgeStep(crop, crop, w, h);
    const auto [noise1, step1] = noiseAndEdgeStep(crop, filtered.images[0], w, h);
    const auto [noise2, step2] = noiseAndEdgeStep(crop, filtered.images[1], w, h);
    const auto [plainNoise, plainStep] = noiseAndEdgeStep(crop, blurred.images[1], w, h);
    EXPECT_LT(noise1, 0.5f * inputNoise);
    EXPECT_LT(noise2, 0.4f * inputNoise);
    EXPECT_LE(noise2, plainNoise);
    EXPECT_GT(step2, 3.0f * plainStep);
}
