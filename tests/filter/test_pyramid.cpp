// Level pyramid: results, towers, diff images and the per-level commentary;
// then whole pyramids of small images, the SIMD path against the plain one on
// every instruction set. What the filter does to a photograph is pinned by the
// whole-fusion goldens.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/switches.h"
#include "filter/filter.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;
using testsupport::Bytes;

namespace {

struct Towers {
    std::vector<Bytes> images, diffs;
    Bytes out;
    int result = 0;
    Bytes joined() const {  // towers, then diffs
        Bytes all;
        for (const auto *v : {&images, &diffs})
            for (const Bytes &b : *v) all.insert(all.end(), b.begin(), b.end());
        return all;
    }
};

// 8-bit fusion2a with the driver's parameters (start radius 3, sigmas 0.2,
// kernel growth from the image size), or gauss-only with sigmas gaussSigma;
// on the plain path when asked.
Towers runPyramid(const Bytes &in, int iMax, int jMax, int spp, int numLevels, int nbProc,
                  float gaussSigma = 0, unsigned char *bright = nullptr,
                  unsigned char *cross = nullptr, bool plain = false) {
    const float sigma = gaussSigma ? gaussSigma : 0.2f;
    const float mult = 5.0f * (sqrtf((float)((iMax + jMax) / 2)) / 56.56854248046875f * 10.0f);
    Towers t{std::vector<Bytes>(numLevels, Bytes(in.size(), 0x5A)), {}, Bytes(in.size())};
    t.diffs = t.images;
    std::vector<unsigned char *> images, diffs;
    for (int l = 0; l < numLevels; l++) {
        images.push_back(t.images[l].data());
        diffs.push_back(t.diffs[l].data());
    }
    srand(0);
    usePlainPath = plain;
    t.result = fusion2a(nbProc, numLevels, 7.0f, std::max(1.0f, mult), sigma, sigma,
                        gaussSigma != 0, iMax, jMax, spp, 8, const_cast<unsigned char *>(in.data()),
                        spp, 8, cross, bright, nullptr, nullptr, diffs.data(), images.data(),
                        t.out.data());
    usePlainPath = false;
    return t;
}

}  // namespace

TEST(Pyramid, ReturnsLevelsPlusOnePrintsKernelSizesAndIgnoresCrossFilter) {
    const int iMax = 30, jMax = 24;
    const Bytes in = testsupport::randomImage(iMax, jMax, 1, 2);
    const Towers none = runPyramid(in, iMax, jMax, 1, 0, 2);
    EXPECT_EQ(none.result, 1);
    EXPECT_EQ(none.out, in);
    testing::internal::CaptureStderr();
    const Towers t = runPyramid(in, iMax, jMax, 1, 3, 2);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(t.result, 4);
    EXPECT_EQ(t.out, t.images[2]);
    std::string want;  // two lines per level
    for (int l = 0; l < 3; l++) want += "NUMKERNELENTRIES=121\nNUMFINEKERNELENTRIES=577\n";
    EXPECT_EQ(err, want);
    Bytes cross = testsupport::randomImage(iMax, jMax, 1, 4);
    const Towers crossed = runPyramid(in, iMax, jMax, 1, 3, 2, 0, nullptr, cross.data());
    EXPECT_EQ(crossed.images, t.images);
    EXPECT_EQ(crossed.diffs, t.diffs);
}

// The wide gauss-only kernel sums to far more than 1 before it is normalised;
// each level may lose one unit to truncation.
TEST(Pyramid, GaussOnlyNormalisesKernelSoFlatAreaKeepsItsLevel) {
    const Towers t = runPyramid(Bytes(24 * 20, 200), 24, 20, 1, 2, 2, 10);
    for (int l = 0; l < 2; l++)
        for (unsigned char v : t.images[l]) ASSERT_TRUE(v >= 199 - l && v <= 200) << (int)v;
}

// Diff = level input - level output + 128, clamped: a bright spike in black
// and a dark dip in white, blurred plainly, saturate both ways.
TEST(Pyramid, EightBitDiffSaturatesAndIs128WhereUnchanged) {
    const int iMax = 40, jMax = 20;
    Bytes in(iMax * jMax, 0);
    for (int j = 0; j < jMax; j++) std::fill_n(&in[j * iMax + iMax / 2], iMax / 2, 255);
    in[10 * iMax + 8] = 255;
    in[10 * iMax + 30] = 0;
    const Towers t = runPyramid(in, iMax, jMax, 1, 2, 2, 10);
    for (int l = 0; l < 2; l++) {
        const Bytes &levelIn = l == 0 ? in : t.images[0];
        for (size_t k = 0; k < in.size(); k++)
            ASSERT_EQ(t.diffs[l][k], std::clamp(levelIn[k] - t.images[l][k] + 128, 0, 255)) << k;
    }
    EXPECT_EQ(t.diffs[0][10 * iMax + 8], 255);
    EXPECT_EQ(t.diffs[0][10 * iMax + 30], 0);
    EXPECT_EQ(t.diffs[0][10 * iMax + 2], 128);  // black stays black
}

struct PyramidSimd : testing::TestWithParam<int> {
    void TearDown() override { simd::levelPassBandRows = 0; }
};

// 1xN, Nx1, smaller than a kernel, even sides below 24 (kernels reach a row
// or column past the border: run under AddressSanitizer), odd widths that
// leave part of a vector, and a larger picture; one- and three-sample, each
// plain, with a bright map and gauss-only. The reference runs on one thread,
// the instruction sets on teams of 1 to 3, with colour planes in bands of 1,
// 3 or 7 rows (0: the usual size): the rows a band keeps must be the same.
TEST_P(PyramidSimd, TowersAndDiffsMatchPlainPath) {
    CIELab_Init(2);
    const int sizes[][2] = {{1, 1},  {1, 13}, {14, 1},  {2, 2},  {3, 5},  {6, 4},
                            {10, 8}, {17, 12}, {22, 18}, {33, 9}, {63, 7}, {96, 80}};
    const int iMax = sizes[GetParam()][0], jMax = sizes[GetParam()][1];
    int caseNo = 6 * GetParam();
    for (int spp : {1, 3})
        for (int variant = 0; variant < 3; variant++, caseNo++) {
            const float gauss = variant == 2 ? 10.0f : 0.0f;  // the bright mask blur's sigmas
            const Bytes in = testsupport::testPicture(caseNo % 6, iMax, jMax, spp, 1000 + caseNo);
            Bytes map = testsupport::brightMap(1 + caseNo % 3, iMax, jMax, 1000 + caseNo);
            unsigned char *bright = variant > 0 ? map.data() : nullptr;
            const int bandRows[] = {0, 1, 3, 7};
            simd::levelPassBandRows = bandRows[caseNo % 4];
            SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << " spp " << spp << " variant "
                                            << variant << " band " << bandRows[caseNo % 4]);
            testing::internal::CaptureStderr();
            const Bytes want =
                runPyramid(in, iMax, jMax, spp, 2, 1, gauss, bright, nullptr, true).joined();
            testsupport::forEachTarget([&](int t) {
                const int nbProc = 1 + (t + caseNo) % 3;
                EXPECT_EQ(testsupport::firstDifference(
                              want, runPyramid(in, iMax, jMax, spp, 2, nbProc, gauss, bright).joined(),
                              iMax, spp), "")
                    << nbProc << " threads; rows of jMax each: tower 1, tower 2, diff 1, diff 2";
            });
            testing::internal::GetCapturedStderr();
        }
}
INSTANTIATE_TEST_SUITE_P(Sizes, PyramidSimd, testing::Range(0, 12));
