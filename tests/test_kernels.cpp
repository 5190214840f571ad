// Sparse kernel sizing and the jittered spatial kernel.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "internal.h"

using namespace lumora;

namespace {

int acc6[3] = {6, 6, 6};

std::vector<KernelEntry> buildKernel(int size, float sigma, float power) {
    std::vector<KernelEntry> k(fastSpatialKernelNumEntries(size, sigma, power, 0, acc6));
    makeFastSpatialKernel(size, sigma, power, 0, acc6, k.data());
    return k;
}

// Checks that exactly `calls` values were drawn since srand(0).
void expectDrawsSinceSeed(int calls) {
    const int next = rand();
    srand(0);
    for (int i = 0; i < calls; i++) rand();
    EXPECT_EQ(next, rand());
}

// Unjittered grid of spacing `step`, weighed in units of `rawStep`.
void expectGrid(const std::vector<KernelEntry> &k, int step, int rawStep, float sigmaSqd) {
    for (size_t n = 0; n < k.size(); n++) {
        const int i = (int)n / 11 * step, j = (int)n % 11 * step;
        ASSERT_EQ(k[n].xpos, i);
        ASSERT_EQ(k[n].ypos, j);
        const float dx = std::abs(i - 5 * step) / (float)rawStep;
        const float dy = std::abs(j - 5 * step) / (float)rawStep;
        EXPECT_EQ(k[n].factor, (float)std::exp((double)(-(dx * dx + dy * dy) / sigmaSqd)));
    }
}

}  // namespace

TEST(KernelSizing, RadiusUsesFloatLogOfPointOne) {
    EXPECT_EQ(kernelRadius(1, 2, 3), (float)std::sqrt(1.1512925390464424 * 8));
    EXPECT_NEAR(kernelRadius(1, 2, 3), 3.0348, 1e-4);
}

TEST(KernelSizing, CountsGridPointsAndReservesEvenCentre) {
    EXPECT_EQ(fastSpatialKernelNumEntriesImpl(11, 1, 1, 0, 1, acc6), 121);
    EXPECT_EQ(fastSpatialKernelNumEntriesImpl(31, 1, 1, 0, 1, acc6), 121);
    EXPECT_EQ(fastSpatialKernelNumEntriesImpl(21, 1, 1, 0, 2, acc6), 121);
    EXPECT_EQ(fastSpatialKernelNumEntriesImpl(10, 1, 1, 0, 1, acc6), 101);
    for (int level = 0; level < 3; level++)  // power 1: level factor 1 throughout
        EXPECT_EQ(fastSpatialKernelNumEntries(15, 0.5f, 1, level, acc6), 121);
}

TEST(KernelSizing, SearchStopsAfterTenRefinements) {
    // A proposal below 1 is clamped to 1 before the next round, so the
    // integer parts never agree and the search runs out.
    int before = proposedLevelFactorImplCalls;
    EXPECT_FLOAT_EQ(getProposedLevelFactor(3, 1, 0.5f, 0.25f, 1, 0, acc6), 0.5f);
    EXPECT_EQ(proposedLevelFactorImplCalls - before, 11);
    before = proposedLevelFactorImplCalls;
    EXPECT_FLOAT_EQ(getProposedLevelFactor(61, 4, 8, 64, 6, 0, acc6), 5);
    EXPECT_EQ(proposedLevelFactorImplCalls - before, 2);
}

TEST(SpatialKernel, LevelFactorOneDrawsNothing) {
    srand(0);
    const auto k = buildKernel(11, 2, 1);
    ASSERT_EQ(k.size(), 121u);
    expectDrawsSinceSeed(0);
    expectGrid(k, 1, 1, 4.0f);
}

TEST(SpatialKernel, ShrunkSpacingWeighsInRawUnits) {
    // power 8: raw factor 5, shrunk to 2 by sigma 2. The jitter range of 1
    // still draws twice per point but moves nothing.
    srand(0);
    const auto k = buildKernel(61, 2, 8);
    ASSERT_EQ(k.size(), 121u);
    expectDrawsSinceSeed(2 * 121);
    expectGrid(k, 2, 5, 4.0f);
}

TEST(SpatialKernel, EvenGridGetsCopiedCentreEntry) {
    const auto k = buildKernel(10, 2, 1);
    ASSERT_EQ(k.size(), 101u);
    EXPECT_EQ(k[50].xpos, 4);
    EXPECT_EQ(k[50].ypos, 4);
    // The displaced grid point (5, 0) follows, and lent the centre its weight.
    EXPECT_EQ(k[51].xpos, 5);
    EXPECT_EQ(k[51].ypos, 0);
    EXPECT_EQ(k[50].factor, k[51].factor);
    EXPECT_EQ(k[100].xpos, 9);
    EXPECT_EQ(k[100].ypos, 9);
}

TEST(SpatialKernel, JitterIsSeededAndBounded) {
    // power 6 and sigma 4 keep the raw factor 4: offsets within +-1.
    srand(0);
    const auto a = buildKernel(61, 4, 6);
    ASSERT_EQ(a.size(), 121u);
    expectDrawsSinceSeed(2 * 121);
    srand(0);
    const auto b = buildKernel(61, 4, 6);
    int moved = 0;
    for (size_t n = 0; n < a.size(); n++) {
        EXPECT_TRUE(a[n].xpos == b[n].xpos && a[n].ypos == b[n].ypos && a[n].factor == b[n].factor);
        const int dx = a[n].xpos - (int)n / 11 * 4, dy = a[n].ypos - (int)n % 11 * 4;
        EXPECT_TRUE(std::abs(dx) <= 1 && std::abs(dy) <= 1 && a[n].xpos >= 0 && a[n].ypos >= 0 &&
                    a[n].xpos <= 40 && a[n].ypos <= 40);
        moved += dx != 0 || dy != 0;
    }
    EXPECT_GT(moved, 0);
    // Corners and centre are pinned whatever the jitter did.
    EXPECT_TRUE(a[0].xpos == 0 && a[0].ypos == 0);
    EXPECT_TRUE(a[120].xpos == 40 && a[120].ypos == 40);
    EXPECT_TRUE(a[60].xpos == 20 && a[60].ypos == 20);
}
