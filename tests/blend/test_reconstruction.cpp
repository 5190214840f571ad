// Per-pixel reconstruction: detail sums, sharpening, clamping, output layout
// and the dark image's weight drop. (Team sizes, more threads than rows
// included, are swept where the SIMD rows meet the plain ones.)
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

using namespace lumora;
using Bytes = std::vector<unsigned char>;

namespace {

// Hand-made towers and weight planes of kMax images, w x h, for reconstruct().
// Tower and detail index k * 2 + lev; tower[k * 2 + 1] is image k's base.
struct Scene {
    std::vector<Bytes> tower, diff;
    Bytes poids, images, fused, res;
    std::vector<float> sharpLUT = std::vector<float>(129, 0.0f);
    float coeff[256] = {};
    ReconstructionArgs a;

    // rowOut 0: rows of w * 3 samples.
    Scene(int w, int h, int k, int bpsOut = 8, int rowOut = 0)
        : tower(2 * k, Bytes(w * h * 3, 0)), diff(2 * k, Bytes(w * h * 3, 128)),
          poids(w * h * 3 * k), images(w * h * 3 * k), fused(w * h * 3),
          res((rowOut ? rowOut : w * 3) * h * bpsOut / 8, 0xAB),
          a{(size_t)w * 3, (size_t)w * h * 3, (size_t)w * h, nullptr, nullptr, nullptr, nullptr,
            nullptr, nullptr, nullptr, coeff, nullptr, 2, 1, bpsOut / 8, 128, 0.0f,
            0.0f /* satCoeff 0: no HSL round trip */, k, h, w, 3, 8, 8, bpsOut, 1,
            rowOut ? rowOut : w * 3, 0, 0, 0} {}
    // Base value of every sample of image k, and its weight byte on every level.
    void fill(int k, unsigned char base, unsigned char weight) {
        std::fill(tower[k * 2 + 1].begin(), tower[k * 2 + 1].end(), base);
        const size_t plane = poids.size() / (3 * a.kMax);
        for (int lev = 0; lev <= 2; lev++)
            std::memset(&poids[(lev * a.kMax + k) * plane], weight, plane);
    }
    void run(int nbProc) {
        std::vector<unsigned char *> t, d;
        for (auto &v : tower) t.push_back(v.data());
        for (auto &v : diff) d.push_back(v.data());
        a.resImage = res.data();
        a.outputImageTower = t.data();
        a.outputImageDiffTower = d.data();
        a.poidsBuffer = poids.data();
        a.imagesBuffer = images.data();
        a.fusedResult = fused.data();
        a.sharpLUT = sharpLUT.data();
        reconstruct(nbProc, a);
    }
    unsigned short res16(size_t sample) const {
        unsigned short v;
        std::memcpy(&v, &res[2 * sample], 2);
        return v;
    }
};

}  // namespace

TEST(Reconstruction, NeutralDetailAddsNothingAndByteZeroIsSharpenedOnlyWhenAskedFor) {
    Scene s(4, 3, 2);
    s.fill(0, 100, 255);
    s.fill(1, 60, 0);
    s.a.sharpnessFactor = 0.4f;
    s.sharpLUT.assign(129, 0.4f);
    s.run(1);
    for (unsigned char v : s.res) EXPECT_EQ(v, 100);
    s.fill(0, 100, 128);  // 100 * 128 / 255 = 50.2
    s.run(1);
    EXPECT_EQ(s.res[0], 50);
    // Detail byte 0 on level 1: -128 * (1 + sharpLUT[128]) * weight, or -128 at sharpness 0.
    s.fill(0, 200, 255);
    std::fill(s.diff[1].begin(), s.diff[1].end(), 0);
    s.sharpLUT[128] = 0.5f;
    s.run(1);
    EXPECT_EQ(s.res[0], 200 - 192);
    s.a.sharpnessFactor = 0.0f;
    s.run(1);
    EXPECT_EQ(s.res[0], 200 - 128);
}

// Samples of -3.7, 300 and 100 (details -1 * (1 + 2.7), +45 and 0) clamp
// before truncation; rows of rowOut = 4 samples, 16 bits in (b, g, r) order.
TEST(Reconstruction, ClampsSwapsRedAndBlueAndCountsRowOutInSamples) {
    for (int bpsOut : {8, 16}) {
        Scene s(1, 2, 1, bpsOut, 4);
        s.fill(0, 0, 255);
        s.tower[1] = {0, 255, 100, 0, 255, 100};
        s.diff[0] = {127, 128 + 45, 128, 127, 128 + 45, 128};
        s.sharpLUT[1] = 2.7f;
        s.a.sharpnessFactor = 1.0f;
        s.a.rgb2bgr = bpsOut == 16;
        s.run(2);
        // 76800 clamped; the padding sample untouched.
        const int want[2][4] = {{0, 255, 100, 0xAB}, {25600, 65535, 0, 0xABAB}};
        for (int n = 0; n < 8; n++)
            EXPECT_EQ(bpsOut == 8 ? s.res[n] : s.res16(n), want[bpsOut / 16][n % 4])
                << bpsOut << " bits, sample " << n;
    }
}

TEST(Reconstruction, DarkImageWeightDropsToThreeQuartersAtSmoothedLuminance50) {
    Scene s(3, 2, 2);
    s.a.fusionPreserveHighlights = 1;
    s.a.darkMergeThreshold = 0;  // influence 10: factor1 stays 1
    std::fill(s.fused.begin(), s.fused.end(), 200);
    std::fill(s.images.begin(), s.images.end(), 50);
    for (auto &t : s.tower) t.assign(t.size(), 50);
    s.fill(0, 200, 102);  // weights 0.4 and 0.4
    s.fill(1, 50, 102);
    s.run(2);
    const float w = 102 / 255.0f;
    const float p0 = w / (w + w * 0.75f);
    const float p1 = w * 0.75f / (w * 0.75f + p0);
    for (unsigned char v : s.res) EXPECT_EQ(v, (int)(200 * p0 + 50 * p1));
}

// The reduction's steps, which the SIMD rows' tables are built from.
TEST(Reconstruction, DarkReductionFactorsAndMergeLuminanceByThreshold) {
    EXPECT_EQ(darkCutFactor(50), 0.75f);
    EXPECT_EQ(darkCutFactor(100), 1.0f);
    EXPECT_EQ(darkMergeFactor(0, 200), 1.0f);  // influence 10: threshold 0
    EXPECT_EQ(darkMergeFactor(150, 255), 1.0f);
    EXPECT_EQ(darkMergeFactor(150, 149), 0.0f);
    EXPECT_NEAR(darkMergeFactor(150, 200), 0.4020f, 1e-4f);  // 1 - exp(-10 (50 / 105)^4)
    EXPECT_EQ(darkMergeLuminance(139, 40, 240), 40);
    EXPECT_EQ(darkMergeLuminance(155, 40, 240), 140);  // half way
    EXPECT_EQ(darkMergeLuminance(170, 40, 240), 240);
}

TEST(ReconstructionDeathTest, BadWeightsAbortWithTheirReports) {
    Scene depth(1, 1, 1);
    depth.a.bitDepthPoids = 16;
    EXPECT_DEATH(depth.run(1), "hx_fusion2: Assertion `bitDepthPoids == 8' failed");

    Scene zero(2, 1, 2);  // highlight mode, both weights 0
    zero.a.fusionPreserveHighlights = 1;
    EXPECT_DEATH(zero.run(1),
                 "i=0 j=0 factor1=1.000000 factor2=0.000000 luminance1=0 luminance2=0");

    // A black dark image gets factor 0 and the fused image had no weight: 0 / 0.
    Scene nan(2, 1, 2);
    nan.a.fusionPreserveHighlights = 1;
    nan.fill(1, 0, 255);
    EXPECT_DEATH(nan.run(1), "poidsLev\\[0\\]=-?nan\npoidsLev\\[1\\]=-?nan");
}
