// The process-wide RGB-to-CIELab table. A fill costs about a second: the
// table is filled once and refilled once.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

#include "internal.h"

using namespace lumora;

namespace {

uint64_t tableHash() {
    uint64_t h = 1469598103934665603ull;
    for (int r = 0; r < 256; r++)
        for (int g = 0; g < 256; g++) {
            const auto *p = reinterpret_cast<const unsigned char *>(labLUT[r][g]);
            for (size_t n = 0; n < 256 * sizeof(LABData); n++) h = (h ^ p[n]) * 1099511628211ull;
        }
    return h;
}

}  // namespace

TEST(CIELabPoint, ReferenceValues) {
    const struct { int r, g, b; float l, a, bb; } refs[] = {
        {0, 0, 0, 0, 0, 0},
        {255, 255, 255, 99.849f, 0, 0},
        {255, 0, 0, 60.509f, 138.986f, 104.325f},
        {0, 255, 0, 87.441f, -186.452f, 150.761f},
        {0, 0, 255, 0.077f, 90.085f, -172.021f},
        {128, 128, 128, 76.070f, 0, 0},
    };
    for (const auto &c : refs) {
        float L, A, B;
        Point_RGB_to_CIELab(c.r, c.g, c.b, &L, &A, &B);
        EXPECT_NEAR(L, c.l, 1e-3) << c.r << "," << c.g << "," << c.b;
        EXPECT_NEAR(A, c.a, 1e-3) << c.r << "," << c.g << "," << c.b;
        EXPECT_NEAR(B, c.bb, 1e-3) << c.r << "," << c.g << "," << c.b;
    }
}

TEST(CIELabPoint, CubeRootThresholdTakesLinearBranch) {
    double r = ep * 65535.0;
    while (r / 65535.0 < ep) r = std::nextafter(r, 1e9);
    while (r / 65535.0 > ep) r = std::nextafter(r, 0.0);
    ASSERT_EQ(r / 65535.0, ep);
    EXPECT_EQ(f_cbrt(r), (ka * ep + 16.0) / 116.0);
    const double above = std::nextafter(r, 1e9);
    EXPECT_EQ(f_cbrt(above), std::pow(above / 65535.0, 0.3333333333333333));
}

TEST(CIELabPoint, PseudoinverseIsTransposedInverse) {
    double out[3][3];
    pseudoinverse(const_cast<double(*)[3]>(rgb_xyz), out, 3);
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) {
            double s = 0;
            for (int k = 0; k < 3; k++) s += out[k][i] * rgb_xyz[k][j];
            EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12) << i << "," << j;
        }
}

TEST(CIELabTable, MatchesPointConversionForAnyTeamSize) {
    CIELab_Init(1);
    std::mt19937 gen(7);
    for (int n = 0; n < 4000; n++) {
        const int r = gen() & 255, g = gen() & 255, b = gen() & 255;
        LABData p;
        Point_RGB_to_CIELab(r, g, b, &p.l, &p.a, &p.b);
        ASSERT_EQ(std::memcmp(&labLUT[r][g][b], &p, sizeof p), 0) << r << "," << g << "," << b;
    }
    EXPECT_EQ(labLUT[0][0][0].l, 0.0f);
    for (int v = 0; v < 256; v++)  // greys are neutral
        EXPECT_TRUE(std::fabs(labLUT[v][v][v].a) < 1e-3f && std::fabs(labLUT[v][v][v].b) < 1e-3f) << v;

    // A refill by another team size keeps the blocks and rewrites every
    // entry (poisoned first) with the same bytes.
    const uint64_t singleThreadHash = tableHash();
    LABData ***table = labLUT;
    LABData *block = labLUT[17][200];
    for (int r = 0; r < 256; r++)
        for (int g = 0; g < 256; g++) std::memset(labLUT[r][g], 0xff, 256 * sizeof(LABData));
    CIELab_Init(3);
    EXPECT_EQ(labLUT, table);
    EXPECT_EQ(labLUT[17][200], block);
    EXPECT_EQ(tableHash(), singleThreadHash);
}
