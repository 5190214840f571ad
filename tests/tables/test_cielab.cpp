// The process-wide RGB-to-CIELab table. A plain fill costs about a second,
// a fast one a tenth of that: the table is filled three times in all.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "core/switches.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;

namespace {

uint64_t tableHash() {
    uint64_t h = testsupport::checksum(nullptr, 0);
    for (int r = 0; r < 256; r++)
        for (int g = 0; g < 256; g++) h = testsupport::checksum(labLUT[r][g], 256 * sizeof(LABData), h);
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

// Every entry against the point conversion, then refills by other team sizes
// and by the plain path: the blocks stay where they are and every entry
// (poisoned first) is rewritten with the same bytes.
TEST(CIELabTable, EveryEntryEqualsPointConversionWhateverPathAndTeamSize) {
    CIELab_Init(2);
    // Greys at least take the exact conversion: their A and B are far finer
    // than the cube root's bounds can decide.
    EXPECT_GT(labSimdFallbacks, 0);
    int firstBad = 1 << 24;
#pragma omp parallel for schedule(static) reduction(min : firstBad) num_threads(2)
    for (int r = 0; r < 256; r++)
        for (int g = 0; g < 256 && r * 65536 + g * 256 < firstBad; g++)
            for (int b = 0; b < 256; b++) {
                LABData p;
                Point_RGB_to_CIELab(r, g, b, &p.l, &p.a, &p.b);
                if (std::memcmp(&labLUT[r][g][b], &p, sizeof p) != 0) {
                    firstBad = std::min(firstBad, r * 65536 + g * 256 + b);
                    break;
                }
            }
    ASSERT_EQ(firstBad, 1 << 24) << "first differing entry (" << (firstBad >> 16) << ", "
                                 << (firstBad >> 8 & 255) << ", " << (firstBad & 255) << ")";

    const uint64_t hash = tableHash();
    LABData ***table = labLUT;
    LABData *block = labLUT[17][200];
    for (const bool plain : {false, true}) {
        for (int r = 0; r < 256; r++)
            for (int g = 0; g < 256; g++) std::memset(labLUT[r][g], 0xff, 256 * sizeof(LABData));
        usePlainPath = plain;
        CIELab_Init(3);
        usePlainPath = false;
        EXPECT_EQ(labLUT, table);
        EXPECT_EQ(labLUT[17][200], block);
        EXPECT_EQ(tableHash(), hash) << (plain ? "plain" : "fast") << " fill by 3 threads";
    }
}
