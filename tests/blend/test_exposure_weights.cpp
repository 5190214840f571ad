// Exposure weights: per pixel (error table strength 15) with the highlight
// shift, then the vectorised raw weight planes against the per-pixel loop on
// every instruction set.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "blend/blend.h"
#include "test_support.h"

using namespace lumora;
using testsupport::Bytes;

namespace {

struct Tables {
    float coeff[256], preserve[256];
    explicit Tables(float strength) { buildErrorCoefficients(strength, coeff, preserve); }
    // Weights of one pixel per image, the driver's way (one table for both).
    void weigh(int kMax, unsigned char (*px)[3], float *poids) {
        unsigned char *ptrs[3] = {px[0], kMax > 1 ? px[1] : nullptr, kMax > 2 ? px[2] : nullptr};
        calculatePoids8Alt(kMax, ptrs, 3, 0, 0, 1, 1, coeff, coeff, 1, poids);
    }
};

// The raw weight planes of kMax images, by the per-pixel loop (plain) or
// the vectorised one.
Bytes rawWeights(bool plain, int kMax, int iMax, int jMax, Bytes *images, float *ce,
                 float *ceLast, int highlight) {
    const int n = iMax * jMax;
    Bytes planes((size_t)kMax * n, 0xA5);
    unsigned char *in[3], *out[3];
    for (int k = 0; k < kMax; k++) in[k] = images[k].data(), out[k] = planes.data() + (size_t)k * n;
    const RawWeightsArgs args{kMax, iMax, jMax, in, out, ce, ceLast, highlight};
    if (plain)
        rawWeightPixels(args, 0, (size_t)n);
    else
        simd::rawWeights(args);
    return planes;
}

}  // namespace

TEST(ExposureWeights, SharesFollowChannelErrorsAndSwapWithTheImages) {
    Tables t(15.0f), copy(15.0f);
    unsigned char grey[3][3] = {{128, 128, 128}, {128, 128, 128}, {128, 128, 128}};
    float p[3], q[3];
    t.weigh(3, grey, p);
    for (float w : p) EXPECT_FLOAT_EQ(w, 1.0f / 3.0f);
    // A distinct last table, told apart by address, doubles the last image.
    unsigned char *ptrs[2] = {grey[0], grey[1]};
    calculatePoids8Alt(2, ptrs, 3, 0, 0, 1, 1, t.coeff, copy.coeff, 1, p);
    EXPECT_FLOAT_EQ(p[1], 2.0f / 3.0f);

    unsigned char a[2][3] = {{30, 200, 90}, {140, 120, 250}};
    unsigned char b[2][3] = {{140, 120, 250}, {30, 200, 90}};
    t.weigh(2, a, p);
    t.weigh(2, b, q);
    EXPECT_TRUE(p[0] == q[1] && p[1] == q[0] && p[0] != p[1]);
    // Black weighs exp(-3.75); channel coefficients 0.2, 0.7, 0.1.
    const float e = (float)std::exp(-3.75);
    unsigned char black[2][3] = {{0, 0, 0}, {128, 128, 128}};
    unsigned char green[2][3] = {{128, 0, 128}, {128, 128, 128}};
    unsigned char red[2][3] = {{0, 128, 128}, {128, 128, 128}};
    t.weigh(2, black, p);
    EXPECT_NEAR(p[0], e / (e + 1.0f), 1e-6f);
    t.weigh(2, green, p);
    EXPECT_NEAR(p[0], (0.3f + 0.7f * e) / (1.3f + 0.7f * e), 1e-6f);
    t.weigh(2, red, p);
    EXPECT_NEAR(p[0], (0.8f + 0.2f * e) / (1.8f + 0.2f * e), 1e-6f);
}

TEST(HighlightShift, NearWhiteFusedPixelShiftsWeightToTheDarkImage) {
    const unsigned char dark[3] = {10, 10, 10}, at250[3] = {250, 250, 250},
                        at255[3] = {255, 255, 255}, at240[3] = {240, 240, 241};  // luminance 240
    float p[2] = {0.5f, 0.5f}, q[2] = {0.5f, 0.5f}, r[2] = {0.3f, 0.7f};
    highlightShift(at250, dark, p);
    const float p1 = 0.5f + 0.6666667f, p0 = 0.5f / (0.5f + p1);
    EXPECT_FLOAT_EQ(p[0], p0);
    EXPECT_FLOAT_EQ(p[1], p1 / (p0 + p1));  // sequential: sees the new p[0]
    highlightShift(at255, dark, q);
    EXPECT_FLOAT_EQ(q[0], 0.25f);
    EXPECT_NEAR(q[1], 0.857f, 5e-4f);  // the pair no longer adds up to 1
    highlightShift(at240, dark, r);
    EXPECT_TRUE(r[0] == 0.3f && r[1] == 0.7f);
}

// Variant 0: one table (the driver's call), 1: a separate last-image table,
// 2: the highlight shift; near-white runs and mid-grey among noise.
TEST(ExposureWeightsSimd, RawWeightsMatchPerPixelLoopWithBothTableRulesAndHighlightShift) {
    float ce[256], ceOther[256], unused[256];
    int caseNo = 0;
    for (float strength : {15.0f, 0.5f, 60.0f})
        for (int kMax = 1; kMax <= 3; kMax++)
            for (int variant = 0; variant < 3; variant++, caseNo++) {
                if (variant == 2 && kMax != 2) continue;
                buildErrorCoefficients(strength, ce, unused);
                buildErrorCoefficients(strength * 0.7f, ceOther, unused);
                const int iMax = 1 + caseNo % 7 * 11, jMax = 3 + caseNo % 4, n = iMax * jMax;
                Bytes images[3];
                std::mt19937 gen(caseNo);
                for (int k = 0; k < kMax; k++) {
                    images[k] = testsupport::randomImage(iMax, jMax, 3, 100 * caseNo + k);
                    for (int p = 0; p < n; p++)
                        if (gen() % 3 == 0)
                            for (int s = 0; s < 3; s++)
                                images[k][3 * p + s] = (unsigned char)(p % 5 ? 235 + gen() % 21 : 128);
                }
                SCOPED_TRACE(testing::Message() << "case " << caseNo << " (strength " << strength
                                                << ", variant " << variant << ")");
                float *ceLast = variant == 1 ? ceOther : ce;
                const Bytes want = rawWeights(true, kMax, iMax, jMax, images, ce, ceLast, variant == 2);
                testsupport::forEachTarget([&](int) {
                    EXPECT_EQ(testsupport::firstDifference(
                                  want, rawWeights(false, kMax, iMax, jMax, images, ce, ceLast,
                                                   variant == 2), n, 1), "")
                        << "(x: pixel, y: plane)";
                });
            }
}

// So large a strength zeroes every table entry far from 128: a black pixel's
// weights are 0/0, inside a vector on the SIMD path.
TEST(ExposureWeightsDeathTest, ZeroSumAbortsOnTheWeightAssertionOnBothPaths) {
    float ce[256], cePreserve[256];
    buildErrorCoefficients(1e6f, ce, cePreserve);
    Bytes images[2] = {Bytes(64 * 3, 128), Bytes(64 * 3, 128)};
    for (Bytes &img : images) std::fill(img.begin() + 21 * 3, img.begin() + 22 * 3, 0);
    const char *words =
        "BilateralFilter:[0-9]+: calculatePoids8Alt: Assertion `poids\\[k\\] <= 1.0f' failed";
    EXPECT_DEATH(rawWeights(true, 2, 16, 4, images, ce, ce, 0), words);
    testsupport::forEachTarget(
        [&](int) { EXPECT_DEATH(rawWeights(false, 2, 16, 4, images, ce, ce, 0), words); });
}
