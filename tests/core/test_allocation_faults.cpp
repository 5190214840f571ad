// Every allocation a small fusion makes, failed one at a time: the calls
// return their documented results, give back everything they took and never
// write through the missing buffer (which would end this program).
//
// Needs the test build configured with -DLUMORA_ALLOCATION_FAULTS=ON (the
// sanitizer stage of CI); elsewhere the tests skip.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/switches.h"
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
// highlight the middle one combined with the darkest (what the combination
// entry point calls).
Outcome fuse(int kMax, bool highlight, long failAt) {
    optim_param_struct team{};
    team.nbProc = 2;
    float params[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(params);
    static Bytes exposures[3];  // read once: hundreds of fusions follow
    Bytes images;
    for (int k = 0; k < kMax; k++) {
        if (exposures[k].empty()) exposures[k] = testsupport::sample(k, 200, 120, W, H);
        images.insert(images.end(), exposures[k].begin(), exposures[k].end());
    }
    Outcome o;
    o.out.assign((size_t)W * H * 3, 0x5A);
    testing::internal::CaptureStderr();
    resetAllocationFaults(failAt);
    params[7] = highlight;
    o.result = hx_fusion2(team, params, kMax, W, H, W, H, W * 3, 0, 3, 8, 8, 8,
                          highlight ? images.data() + (size_t)W * H * 3 : nullptr, images.data(),
                          nullptr, o.out.data(), nullptr);
    o.faults = allocationFaults();
    resetAllocationFaults(0);
    o.commentary = testing::internal::GetCapturedStderr();
    return o;
}

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
        const bool poidsLine =
            o.commentary.find("CAN'T ALLOCATE POIDSBUFFER\n") != std::string::npos;
        EXPECT_EQ(poidsLine, o.faults.failedSize == poidsBytes);
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

// On the SIMD path, which hosts run (the plain reference allocates the same
// but for the level pass's kernel buffers).
TEST(AllocationFaults, EveryAllocationOfAFusionCanFail) {
    CIELab_Init(2);
    keepFilledLabTable = true;  // the table exists now and would be refilled alike
    const long three = failEachAllocation(3, false);
    EXPECT_GT(three, 20);
    EXPECT_GT(failEachAllocation(2, true), three / 2);
    keepFilledLabTable = false;
}

#endif  // LUMORA_ALLOCATION_FAULTS
