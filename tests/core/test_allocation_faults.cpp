// Every allocation a small fusion makes, failed one at a time: the calls
// return their documented results, give back everything they took and never
// write through the missing buffer (which would end this program).
//
// Needs the test build configured with -DLUMORA_ALLOCATION_FAULTS=ON (the
// sanitizer stage of CI); elsewhere the tests skip.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/switches.h"
#include "filter/filter.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;
using Bytes = std::vector<unsigned char>;

#ifndef LUMORA_ALLOCATION_FAULTS

TEST(AllocationFaults, NeedTheFaultInjectingBuild) {
    GTEST_SKIP() << "configure with -DLUMORA_ALLOCATION_FAULTS=ON";
}

#else

namespace {

constexpr int W = 40, H = 32;
constexpr long kLabTableBlocks = 1 + 256 + 256 * 256;

struct Outcome {
    int result;
    std::string commentary;
    AllocationFaults faults;
    Bytes out;
};

// One fusion of a W x H view of the shipped bracket with the failAt-th
// allocation refused (0: none): kMax exposures, darkest first, or with
// highlight the middle one combined with the darkest.
Outcome fuse(int kMax, bool highlight, long failAt) {
    optim_param_struct team{};
    team.nbProc = 2;
    float params[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(params);
    Bytes images;
    for (int k = 0; k < kMax; k++) {
        const Bytes exposure = testsupport::sample(k, 200, 120, W, H);
        images.insert(images.end(), exposure.begin(), exposure.end());
    }
    Outcome o;
    o.out.assign((size_t)W * H * 3, 0x5A);
    testing::internal::CaptureStderr();
    resetAllocationFaults(failAt);
    if (highlight) {
        o.result = hx_combi_realistic(team, params, W, H, W * 3, 0, 3, 8, 8, 8,
                                      images.data() + (size_t)W * H * 3, images.data(),
                                      o.out.data(), nullptr);
    } else {
        params[7] = 0.0f;
        o.result = hx_fusion2(team, params, kMax, W, H, W, H, W * 3, 0, 3, 8, 8, 8, nullptr,
                              images.data(), nullptr, o.out.data(), nullptr);
    }
    o.faults = allocationFaults();
    resetAllocationFaults(0);
    o.commentary = testing::internal::GetCapturedStderr();
    return o;
}

const char kPoidsLine[] = "CAN'T ALLOCATE POIDSBUFFER\n";

// Fails every allocation of one fusion in turn; returns how many there are.
long failEachAllocation(int kMax, bool highlight) {
    const Outcome clean = fuse(kMax, highlight, 0);
    const long total = clean.faults.count;
    EXPECT_EQ(clean.faults.live, 0);
    EXPECT_EQ(clean.result, 2 * kMax);
    const size_t poidsBytes = (size_t)W * H * kMax * 3;
    for (long n = 1; n <= total; n++) {
        SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << total);
        const Outcome o = fuse(kMax, highlight, n);
        EXPECT_EQ(o.result, 2 * kMax);
        EXPECT_EQ(o.faults.live, 0) << "blocks left behind";
        const bool poidsFailed = o.faults.failedSize == poidsBytes;
        EXPECT_EQ(o.commentary.find(kPoidsLine) != std::string::npos, poidsFailed);
    }
    // One past the last: nothing fails and the bytes are the clean run's.
    const Outcome past = fuse(kMax, highlight, total + 1);
    EXPECT_EQ(past.out, clean.out);
    return total;
}

}  // namespace

// Runs first, while the process has no CIELab table yet: a table that cannot
// be allocated in full is given back, and the fusion ends like any other
// allocation failure, with the caller's output untouched.
TEST(AllocationFaults, ColourTableFailsWholeAndTheFusionEndsCleanly) {
    ASSERT_EQ(labLUT, nullptr);
    // In a fusion the table's blocks come after the tower arrays and the gain table.
    for (long n : {1L, 2L, 257L, 258L, 40000L, kLabTableBlocks}) {
        SCOPED_TRACE(n);
        const Outcome o = fuse(3, false, 3 + n);
        EXPECT_EQ(o.result, 6);
        EXPECT_EQ(o.faults.count, 3 + n);  // the table stops at the failed block
        EXPECT_EQ(o.faults.live, 0);
        EXPECT_EQ(labLUT, nullptr);
        EXPECT_EQ(o.out, Bytes((size_t)W * H * 3, 0x5A));
    }
    resetAllocationFaults(0);
    CIELab_Init(2);
    ASSERT_NE(labLUT, nullptr);
}

// The driver's allocations are the same on both paths; the plain path's own
// (the level pass's kernel buffers) are failed through the pyramid below,
// which keeps this test clear of the plain path's slow table fill.
TEST(AllocationFaults, EveryAllocationOfAFusionCanFail) {
    CIELab_Init(2);
    keepFilledLabTable = true;  // the table exists now and would be refilled alike
    const long three = failEachAllocation(3, false);
    EXPECT_GT(three, 20);
    EXPECT_GT(failEachAllocation(2, true), three / 2);
    keepFilledLabTable = false;
}

// The pyramid on its own reports -4 for each of its buffers and those of the
// level pass, releasing all of them.
TEST(AllocationFaults, PyramidReturnsMinusFourForEachBuffer) {
    CIELab_Init(2);
    usePlainPath = true;
    Bytes image = testsupport::sample(0, 200, 120, W, H);
    std::vector<Bytes> levels(2, Bytes(image.size())), diffs(2, Bytes(image.size()));
    unsigned char *tower[2] = {levels[0].data(), levels[1].data()};
    unsigned char *diffTower[2] = {diffs[0].data(), diffs[1].data()};
    const auto run = [&](long failAt) {
        testing::internal::CaptureStderr();
        resetAllocationFaults(failAt);
        const int r = fusion2a(2, 2, 7.0f, 1.5f, 1.0f, 8.0f, 0, W, H, 3, 8, image.data(), 3, 8,
                               nullptr, nullptr, nullptr, nullptr, diffTower, tower, nullptr);
        testing::internal::GetCapturedStderr();
        return r;
    };
    ASSERT_EQ(run(0), 3);
    const long total = allocationFaults().count;
    EXPECT_GE(total, 9);  // factors, tables, kernels, images, per level a copy and two kernel buffers
    for (long n = 1; n <= total; n++) {
        SCOPED_TRACE(n);
        EXPECT_EQ(run(n), -4);
        EXPECT_EQ(allocationFaults().live, 0);
    }
    resetAllocationFaults(0);
    usePlainPath = false;
}

#endif  // LUMORA_ALLOCATION_FAULTS
