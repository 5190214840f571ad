// Reconstruction: detail sums, sharpening, clamping, output layout and the
// dark image's weight drop, per pixel; then the SIMD rows against the
// per-pixel code, byte for byte and abort for abort, on every instruction set.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "blend/blend.h"
#include "core/switches.h"
#include "test_support.h"

using namespace lumora;
using testsupport::Bytes;

namespace {

// Hand-made towers and weight planes of kMax images, w x h, for reconstruct().
// Tower and detail index k * 2 + lev; tower[k * 2 + 1] is image k's base.
// Neutral (black bases, detail 128, weight 0) until filled or randomised.
struct Scene {
    std::vector<Bytes> tower, diff;
    Bytes poids, images, fused, res;
    std::vector<float> sharpLUT = std::vector<float>(258, 0.0f);
    std::vector<unsigned char *> towerPtr, diffPtr;
    ReconstructionArgs a;

    // rowOut 0: rows of w * 3 samples; satCoeff 0: no HSL round trip. The
    // buffers keep their size, so the arguments point into them from here on.
    Scene(int w, int h, int k, int bpsOut = 8, int rowOut = 0)
        : tower(2 * k, Bytes(w * h * 3, 0)), diff(2 * k, Bytes(w * h * 3, 128)),
          poids(w * h * 3 * k), images(w * h * 3 * k), fused(w * h * 3),
          res((rowOut ? rowOut : w * 3) * h * bpsOut / 8), towerPtr(2 * k), diffPtr(2 * k),
          a{(size_t)w * 3, (size_t)w * h * 3, (size_t)w * h, res.data(), towerPtr.data(),
            diffPtr.data(), poids.data(), nullptr, images.data(), fused.data(), nullptr,
            sharpLUT.data(), 2, 1, bpsOut / 8, 128, 0.0f, 0.0f, k, h, w, 3, 8, 8, bpsOut, 1,
            rowOut ? rowOut : w * 3, 0, 0, 0} {
        for (int e = 0; e < 2 * k; e++) {
            towerPtr[e] = tower[e].data();
            diffPtr[e] = diff[e].data();
        }
    }
    // Base value of every sample of image k, and its weight byte on every level.
    void fill(int k, unsigned char base, unsigned char weight) {
        std::fill(tower[k * 2 + 1].begin(), tower[k * 2 + 1].end(), base);
        const size_t plane = poids.size() / (3 * a.kMax);
        for (int lev = 0; lev <= 2; lev++)
            std::memset(&poids[(lev * a.kMax + k) * plane], weight, plane);
    }
    // Seeded random samples and weights (image 0's never 0 in highlight
    // mode, so no pixel aborts), every third fused pixel near white.
    void randomise(uint32_t seed, float sharpness) {
        std::mt19937 gen(seed);
        const auto random = [&](Bytes &b, int lo, int hi) {
            for (auto &v : b) v = (unsigned char)(lo + gen() % (hi - lo + 1));
        };
        for (int s = 0; s < 2 * a.kMax; s++) {
            random(tower[s], 0, 255);
            random(diff[s], s % 2 ? 0 : 96, s % 2 ? 255 : 160);
        }
        random(poids, 0, 255);
        for (size_t p = 0; a.fusionPreserveHighlights && p < a.poidsImageStride; p++)
            for (int lev = 0; lev < 3; lev++) poids[lev * a.kMax * a.poidsImageStride + p] |= 1;
        random(images, 0, 255);
        random(fused, 0, 255);
        for (size_t p = 0; p < a.poidsImageStride; p += 3) std::memset(&fused[3 * p], 250, 3);
        for (int i = 0; i <= 128; i++) {
            const float f = i * (10.0f / 128);
            sharpLUT[i] = (float)std::exp((double)(-f * f / 0.2f)) * (sharpness / 5.0f);
        }
        a.sharpnessFactor = sharpness / 5.0f;
    }
    // The output (0xAB before the call) of a team of nbProc.
    const Bytes &run(int nbProc, bool plain = false) {
        std::fill(res.begin(), res.end(), 0xAB);
        usePlainPath = plain;
        reconstruct(nbProc, a);
        usePlainPath = false;
        return res;
    }
};

}  // namespace

// Detail byte 0 on level 1 of an image of weight 1: -128 * (1 + sharpLUT[128]),
// or -128 at sharpness 0; the other image, of weight 0, adds nothing.
TEST(Reconstruction, DetailByteZeroIsSharpenedOnlyWhenAskedFor) {
    Scene s(4, 3, 2);
    s.fill(0, 200, 255);
    s.fill(1, 60, 0);
    std::fill(s.diff[1].begin(), s.diff[1].end(), 0);
    s.sharpLUT[128] = 0.5f;
    s.a.sharpnessFactor = 0.4f;
    EXPECT_EQ(s.run(1)[0], 200 - 192);
    s.a.sharpnessFactor = 0.0f;
    EXPECT_EQ(s.run(1)[0], 200 - 128);
}

// Samples of -3.7, 300 and 100 (details -1 * (1 + 2.7), +45 and 0) clamp
// before truncation, at 16 bits in (b, g, r) order; rows of rowOut = 4
// samples (not bytes), the padding sample untouched.
TEST(Reconstruction, ClampsSwapsRedAndBlueAndCountsRowOutInSamples) {
    Scene s(1, 2, 1, 16, 4);
    s.fill(0, 0, 255);
    const unsigned char base[6] = {0, 255, 100, 0, 255, 100};
    const unsigned char detail[6] = {127, 128 + 45, 128, 127, 128 + 45, 128};
    std::memcpy(s.tower[1].data(), base, 6);
    std::memcpy(s.diff[0].data(), detail, 6);
    s.sharpLUT[1] = 2.7f;
    s.a.sharpnessFactor = 1.0f;
    s.a.rgb2bgr = 1;
    s.run(2);
    std::vector<unsigned short> got(8);
    std::memcpy(got.data(), s.res.data(), 16);
    const std::vector<unsigned short> want = {25600, 65535, 0, 0xABAB, 25600, 65535, 0, 0xABAB};
    EXPECT_EQ(got, want);  // 76800 clamped
}

// The reduction's steps, which the SIMD rows' tables are built from, and the
// whole reduction: weights 0.4 and 0.4, the dark image's smoothed luminance 50
// (its weight to three quarters), renormalised in turn.
TEST(Reconstruction, DarkReductionFactorsMergeLuminanceAndSequentialRenormalisation) {
    EXPECT_EQ(darkCutFactor(50), 0.75f);
    EXPECT_EQ(darkCutFactor(100), 1.0f);
    EXPECT_EQ(darkMergeFactor(0, 200), 1.0f);  // influence 10: threshold 0
    EXPECT_EQ(darkMergeFactor(150, 255), 1.0f);
    EXPECT_EQ(darkMergeFactor(150, 149), 0.0f);
    EXPECT_NEAR(darkMergeFactor(150, 200), 0.4020f, 1e-4f);  // 1 - exp(-10 (50 / 105)^4)
    EXPECT_EQ(darkMergeLuminance(139, 40, 240), 40);
    EXPECT_EQ(darkMergeLuminance(155, 40, 240), 140);  // half way
    EXPECT_EQ(darkMergeLuminance(170, 40, 240), 240);
    const unsigned char fused[3] = {200, 200, 200}, grey[3] = {50, 50, 50};
    float poids[2] = {0.4f, 0.4f};
    darkImageReduction(0, fused, grey, grey, grey, 0, 0, poids);
    const float p0 = 0.4f / (0.4f + 0.4f * 0.75f);
    EXPECT_FLOAT_EQ(poids[0], p0);
    EXPECT_FLOAT_EQ(poids[1], 0.4f * 0.75f / (0.4f * 0.75f + p0));
}

struct ReconstructionSimd : testing::TestWithParam<int> {};

// Modes 0-1: ordinary with 3 and 1 images; 2-5: highlight mode, threshold 0
// and in each merge branch; every output form among them. One reference on
// two threads; each instruction set with teams of 1 to 3.
TEST_P(ReconstructionSimd, MatchesPerPixelCodeInBothModesAndEveryOutputForm) {
    const int sizes[][2] = {{37, 5}, {1, 7}, {9, 1}, {16, 3}, {3, 2}, {70, 4}};
    const int thresholds[4] = {0, 108, 151, 216};
    const float saturations[4] = {1.0f, 0.0f, 1.5f, 0.4f};
    const int iMax = sizes[GetParam()][0], jMax = sizes[GetParam()][1];
    for (int mode = 0, caseNo = 6 * GetParam(); mode < 6; mode++, caseNo++) {
        const int highlight = mode >= 2, kMax = highlight ? 2 : mode == 0 ? 3 : 1;
        const int bpsOut = caseNo % 2 ? 16 : 8;
        Scene scene(iMax, jMax, kMax, bpsOut);
        scene.a.satCoeff = saturations[caseNo % 4];
        scene.a.rgb2bgr = caseNo / 2 % 2;
        scene.a.fusionPreserveHighlights = highlight;
        scene.a.darkMergeThreshold = highlight ? thresholds[mode - 2] : 0;
        scene.randomise(caseNo, caseNo % 3 == 0 ? 0.0f : 2.0f);
        ASSERT_TRUE(simd::reconstructionCovers(scene.a));
        SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << ", mode " << mode);
        const Bytes want = scene.run(2, true);
        testsupport::forEachTarget([&](int) {
            for (int nbProc = 1; nbProc <= 3; nbProc++)
                EXPECT_EQ(testsupport::firstDifference(want, scene.run(nbProc), iMax, 3, bpsOut / 8),
                          "")
                    << nbProc << " threads";
        });
    }
}
INSTANTIATE_TEST_SUITE_P(Sizes, ReconstructionSimd, testing::Range(0, 6));

// On both paths: pixel 21 of row 1 with both base-level weights 0, and pixel
// 40 with the dark weight cut to 0 (dark luminance 0) beside a zero fused
// weight, leaving 0 / 0. Threshold 0, so factor1 stays 1.
TEST(ReconstructionDeathTest, BadWeightsAbortWithThePerPixelReportsAtTheSamePixel) {
    for (int which = 0; which < 2; which++) {
        Scene scene(48, 2, 2);
        scene.a.fusionPreserveHighlights = 1;
        scene.randomise(5, 2.0f);
        const size_t plane = 96, p = 48 + (which ? 40 : 21);
        std::memset(&scene.fused[3 * p], 200, 3);
        std::memset(&scene.images[3 * p], 30, 3);
        std::memset(&scene.tower[3][3 * p], which ? 0 : 50, 3);  // image 1, coarsest level
        scene.poids[2 * 2 * plane + p] = 0;
        scene.poids[(2 * 2 + 1) * plane + p] = which ? 77 : 0;
        const char *words =
            which ? "poidsLev\\[0\\]=-?nan\npoidsLev\\[1\\]=-?nan"
                  : "i=63 j=1 factor1=1.000000 factor2=0.750000 luminance1=200 luminance2=30";
        EXPECT_DEATH(scene.run(2, true), words);
        testsupport::forEachTarget([&](int) { EXPECT_DEATH(scene.run(2), words); });
    }
}
