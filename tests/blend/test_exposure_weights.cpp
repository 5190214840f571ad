// Per-pixel exposure weights (error table strength 15) and the highlight shift.
#include <gtest/gtest.h>

#include <cmath>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

using namespace lumora;

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

TEST(ExposureWeightsDeathTest, ZeroSumDiesOnTheWeightCheck) {
    Tables t(1e9f);  // every entry but 128 underflows to 0
    unsigned char px[2][3] = {{0, 10, 255}, {250, 3, 40}};
    float poids[2];
    EXPECT_DEATH(t.weigh(2, px, poids), "BilateralFilter:[0-9]+: calculatePoids8Alt: "
                                        "Assertion `poids\\[k\\] <= 1.0f' failed");
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
