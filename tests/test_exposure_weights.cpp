#include <gtest/gtest.h>

#include <cmath>

#include "internal.h"

using namespace lumora;

namespace {

struct Tables {
    float coeff[256];
    float preserve[256];
    explicit Tables(float strength) { buildErrorCoefficients(strength, coeff, preserve); }
    // Weights of one pixel per image, the driver's way (one table for both).
    void weigh(int kMax, unsigned char (*px)[3], float *poids) {
        unsigned char *ptrs[3] = {px[0], kMax > 1 ? px[1] : nullptr, kMax > 2 ? px[2] : nullptr};
        calculatePoids8Alt(kMax, ptrs, 3, 0, 0, 1, 1, coeff, coeff, 1, poids);
    }
};

}  // namespace

TEST(ErrorCoefficients, BellOn128AndPreserveTableOn217Point6) {
    Tables t(15.0f);
    EXPECT_EQ(t.coeff[128], 1.0f);
    EXPECT_LT(t.coeff[127], 1.0f);
    EXPECT_FLOAT_EQ(t.coeff[0], (float)std::exp(-3.75));  // about 0.0235
    EXPECT_FLOAT_EQ(t.coeff[255], (float)std::exp(-0.49609375 * 0.49609375 * 15.0));
    // 0.85 * 256 = 217.6: a flat top of 1.0 there, falling on both sides.
    EXPECT_EQ(t.preserve[218], 1.0f);
    EXPECT_LT(t.preserve[190], t.preserve[200]);
    EXPECT_LT(t.preserve[200], 1.0f);
    EXPECT_LT(t.preserve[255], t.preserve[240]);
    EXPECT_LT(t.preserve[240], 1.0f);
}

TEST(ExposureWeights, MidGreyEverywhereGivesEqualShares) {
    Tables t(15.0f);
    unsigned char px[3][3] = {{128, 128, 128}, {128, 128, 128}, {128, 128, 128}};
    float poids[3];
    t.weigh(3, px, poids);
    for (float w : poids) EXPECT_FLOAT_EQ(w, 1.0f / 3.0f);
    t.weigh(2, px, poids);
    EXPECT_FLOAT_EQ(poids[0], 0.5f);
}

TEST(ExposureWeights, SwappingImagesSwapsWeights) {
    Tables t(15.0f);
    unsigned char a[2][3] = {{30, 200, 90}, {140, 120, 250}};
    unsigned char b[2][3] = {{140, 120, 250}, {30, 200, 90}};
    float pa[2], pb[2];
    t.weigh(2, a, pa);
    t.weigh(2, b, pb);
    EXPECT_EQ(pa[0], pb[1]);
    EXPECT_EQ(pa[1], pb[0]);
    EXPECT_NE(pa[0], pa[1]);
}

TEST(ExposureWeights, BlackWeighsExpMinus375AndGreenCountsMost) {
    Tables t(15.0f);
    const float e = (float)std::exp(-3.75);
    unsigned char black[2][3] = {{0, 0, 0}, {128, 128, 128}};
    unsigned char green[2][3] = {{128, 0, 128}, {128, 128, 128}};
    unsigned char blue[2][3] = {{128, 128, 0}, {128, 128, 128}};
    float pk[2], pg[2], pb[2];
    t.weigh(2, black, pk);
    t.weigh(2, green, pg);
    t.weigh(2, blue, pb);
    EXPECT_NEAR(pk[0], e / (e + 1.0f), 1e-6f);
    // Coefficients 0.2, 0.7, 0.1 for red, green, blue.
    EXPECT_NEAR(pg[0], (0.3f + 0.7f * e) / (1.3f + 0.7f * e), 1e-6f);
    EXPECT_NEAR(pb[0], (0.9f + 0.1f * e) / (1.9f + 0.1f * e), 1e-6f);
}

TEST(ExposureWeights, DistinctLastTableDoublesTheLastImage) {
    // Told apart by address: equal contents in a second table still double.
    Tables t(15.0f), copy(15.0f);
    unsigned char px[2][3] = {{128, 128, 128}, {128, 128, 128}};
    unsigned char *ptrs[2] = {px[0], px[1]};
    float poids[2];
    calculatePoids8Alt(2, ptrs, 3, 0, 0, 1, 1, t.coeff, copy.coeff, 1, poids);
    EXPECT_FLOAT_EQ(poids[0], 1.0f / 3.0f);
    EXPECT_FLOAT_EQ(poids[1], 2.0f / 3.0f);
}

TEST(ExposureWeightsDeathTest, ZeroSumDiesOnTheWeightCheck) {
    Tables t(1e9f);  // every entry but 128 underflows to 0
    unsigned char px[2][3] = {{0, 10, 255}, {250, 3, 40}};
    float poids[2];
    EXPECT_DEATH(t.weigh(2, px, poids), "BilateralFilter:[0-9]+: calculatePoids8Alt: "
                                        "Assertion `poids\\[k\\] <= 1.0f' failed");
}

TEST(ExposureWeights16, LuminanceIndexesTheTableOnce) {
    Tables t(15.0f);
    unsigned short a[3] = {0, 255, 0}, b[3] = {128, 128, 128};  // entries 178 and 128
    unsigned short *ptrs[2] = {a, b};
    float poids[2];
    calculatePoids16Alt(2, ptrs, t.coeff, poids);
    EXPECT_FLOAT_EQ(poids[0], t.coeff[178] / (t.coeff[178] + 1.0f));
}

TEST(HighlightShift, NearWhiteFusedPixelShiftsWeightToTheDarkImage) {
    const unsigned char dark[3] = {10, 10, 10};
    const unsigned char at250[3] = {250, 250, 250}, at255[3] = {255, 255, 255};
    const unsigned char at240[3] = {240, 240, 241};  // luminance 240
    float p[2] = {0.5f, 0.5f};
    highlightShift(at250, dark, p);
    const float p1 = 0.5f + 0.6666667f, p0 = 0.5f / (0.5f + p1);
    EXPECT_FLOAT_EQ(p[0], p0);
    EXPECT_FLOAT_EQ(p[1], p1 / (p0 + p1));  // sequential: sees the new p[0]

    float q[2] = {0.5f, 0.5f};
    highlightShift(at255, dark, q);
    EXPECT_FLOAT_EQ(q[0], 0.25f);
    EXPECT_NEAR(q[1], 0.857f, 5e-4f);  // the pair no longer adds up to 1

    float r[2] = {0.3f, 0.7f};
    highlightShift(at240, dark, r);
    EXPECT_EQ(r[0], 0.3f);
    EXPECT_EQ(r[1], 0.7f);
}
