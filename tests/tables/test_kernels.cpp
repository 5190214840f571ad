// Sparse kernel sizing and the spatial kernel's grid, weights and draws.
// Where the jitter moves each entry is pinned by the whole-fusion goldens.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <tuple>
#include <vector>

#include "core/switches.h"
#include "tables/tables.h"

using namespace lumora;

namespace {

int acc6[3] = {6, 6, 6};

// The kernel built after srand(0); *draws receives the rand() calls it made.
std::vector<KernelEntry> buildKernel(int size, float sigma, float power, int *draws) {
    srand(0);
    std::vector<KernelEntry> k(fastSpatialKernelNumEntries(size, sigma, power, 0, acc6));
    makeFastSpatialKernel(size, sigma, power, 0, acc6, k.data());
    const int next = rand();
    srand(0);
    for (*draws = 0; *draws < 1000 && rand() != next; ++*draws) {
    }
    return k;
}

}  // namespace

TEST(KernelSizing, RadiusCountsAndSearchLength) {
    EXPECT_EQ(kernelRadius(1, 2, 3), (float)std::sqrt(1.1512925390464424 * 8));  // float log 0.1
    // Size, level factor and entries; an even grid gets a centre entry added.
    for (auto [size, factor, n] :
         {std::tuple{11, 1, 121}, {31, 1, 121}, {21, 2, 121}, {10, 1, 101}})
        EXPECT_EQ(fastSpatialKernelNumEntriesImpl(size, 1, 1, 0, factor, acc6), n) << size;
    for (int level = 0; level < 3; level++)  // power 1: level factor 1 throughout
        EXPECT_EQ(fastSpatialKernelNumEntries(15, 0.5f, 1, level, acc6), 121);
    // A proposal below 1 is clamped to 1 before the next round, so the integer
    // parts never agree and the search runs out after ten refinements.
    int before = proposedLevelFactorImplCalls;
    EXPECT_FLOAT_EQ(getProposedLevelFactor(3, 1, 0.5f, 0.25f, 1, 0, acc6), 0.5f);
    EXPECT_EQ(proposedLevelFactorImplCalls - before, 11);
    before = proposedLevelFactorImplCalls;
    EXPECT_FLOAT_EQ(getProposedLevelFactor(61, 4, 8, 64, 6, 0, acc6), 5);
    EXPECT_EQ(proposedLevelFactorImplCalls - before, 2);
}

// Level factor 1 draws nothing. Power 8 gives a raw factor of 5, shrunk to a
// spacing of 2 by sigma 2: two draws per point (a jitter range of 1 moves
// nothing) and weights in units of the raw factor.
TEST(SpatialKernel, UnjitteredGridsWeighInRawUnitsAndEvenGridGetsCentreEntry) {
    for (auto [power, step, raw, draws] : {std::tuple{1.0f, 1, 1, 0}, {8.0f, 2, 5, 242}}) {
        int made = -1;
        const auto k = buildKernel(power == 1 ? 11 : 61, 2, power, &made);
        ASSERT_EQ(k.size(), 121u);
        EXPECT_EQ(made, draws) << power;
        for (size_t n = 0; n < k.size(); n++) {
            const int i = (int)n / 11 * step, j = (int)n % 11 * step;
            ASSERT_EQ(k[n].xpos, i);
            ASSERT_EQ(k[n].ypos, j);
            const float dx = std::abs(i - 5 * step) / (float)raw;
            const float dy = std::abs(j - 5 * step) / (float)raw;
            EXPECT_EQ(k[n].factor, (float)std::exp((double)(-(dx * dx + dy * dy) / 4.0f)));
        }
    }
    // An even grid: the centre (4, 4) is inserted before the grid point (5, 0),
    // with that point's weight.
    int draws;
    const auto k = buildKernel(10, 2, 1, &draws);
    ASSERT_EQ(k.size(), 101u);
    EXPECT_TRUE(k[50].xpos == 4 && k[50].ypos == 4 && k[51].xpos == 5 && k[51].ypos == 0);
    EXPECT_EQ(k[50].factor, k[51].factor);
    EXPECT_TRUE(k[100].xpos == 9 && k[100].ypos == 9);
}

