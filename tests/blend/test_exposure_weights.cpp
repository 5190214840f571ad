// Exposure weights: a pixel's weights from the error table, then the
// vectorised raw weight planes against the per-pixel loop on every
// instruction set.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "blend/blend.h"
#include "test_support.h"

using namespace lumora;
using testsupport::Bytes;

namespace {

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

// Strength 15: black weighs exp(-3.75), mid-grey 1. A distinct last table,
// told apart by address alone (the driver hands one table for both), doubles
// the last image.
TEST(ExposureWeights, BlackBesideGreyAndADistinctLastTableDoublingTheLastImage) {
    float coeff[256], copy[256], unused[256];
    buildErrorCoefficients(15.0f, coeff, unused);
    buildErrorCoefficients(15.0f, copy, unused);
    unsigned char black[3] = {0, 0, 0}, grey[3] = {128, 128, 128};
    unsigned char *pixels[2] = {black, grey};
    const float e = (float)std::exp(-3.75);
    float p[2];
    calculatePoids8Alt(2, pixels, 3, 0, 0, 1, 1, coeff, coeff, 1, p);
    EXPECT_NEAR(p[0], e / (e + 1.0f), 1e-6f);
    calculatePoids8Alt(2, pixels, 3, 0, 0, 1, 1, coeff, copy, 1, p);
    EXPECT_NEAR(p[0], e / (e + 2.0f), 1e-6f);
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
                SCOPED_TRACE(testing::Message() << "case " << caseNo << ", variant " << variant);
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
