// The level pass: the bright map's kernel choice, then the SIMD pass against
// the plain one, byte for byte on every instruction set, with hand-made
// kernels that reach the unnormalised-weight and wrapping-store cases.
#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

#include "core/switches.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;
using testsupport::Bytes;

namespace {

// A level-2 pass over an 8-bit image with its border of b built in, guided
// by itself, in a (2b+1)-square window.
LevelPassArgs levelArgs(ImageWithBorder &img, int iMax, int jMax, int spp, int b,
                        std::vector<KernelEntry> &normal, std::vector<KernelEntry> &fine,
                        float *expLut, unsigned char *map) {
    LevelPassArgs a{};
    a.img = a.filterImg = &img;
    a.filterSpp = a.spp = spp;
    a.filterBps = a.bps = 8;
    a.byteDepth = 1;
    a.filterRowStride = a.rowStride = a.rowStrideBytes = iMax * spp;
    a.filterExtendedRowStride = a.extendedRowStride = (iMax + 2 * b) * spp;
    a.spatialKernel = normal.data();
    a.numKernelEntries = (int)normal.size();
    a.spatialKernelFine = fine.data();
    a.numFineKernelEntries = (int)fine.size();
    a.expLut = expLut;
    a.brightImage = map;
    a.iMax = iMax;
    a.jMax = jMax;
    a.physicalKernelSize = a.largestPhysicalKernelSize = 2 * b + 1;
    a.halfKernelSize = a.largestHalfKernelSize = b;
    a.level = 2;
    a.rangeKernelSigma = 0.2f;
    a.imageHasBorder = 1;
    return a;
}

// A one-sample 24x3 image in a hand-made built-in border of width 1 whose
// horizontal neighbours differ: the normal kernel reads the left neighbour,
// the fine kernel the right one, and an unfiltered pixel copies itself.
struct LevelSetup {
    static constexpr int iMax = 24, jMax = 3, ers = iMax + 2;
    Bytes bordered = Bytes(ers * (jMax + 2)), map = Bytes(iMax * jMax, 0), out = map, smooth = map;
    ImageWithBorder img{.image = bordered.data(), .borderWidth = 1, .mainImageHasBorders = 1};
    std::vector<KernelEntry> normal{{0, 1, 1.0f, 0, 0, 0}}, fine{{2, 1, 1.0f, 0, 0, 0}};
    std::vector<float> expLut = std::vector<float>(EXP_LUT_ENTRIES, 1.0f);
    LevelPassArgs a = levelArgs(img, iMax, jMax, 1, 1, normal, fine, expLut.data(), map.data());

    LevelSetup() {
        a.imgOutput = out.data();
        a.smoothImg = smooth.data();
        for (int n = 0; n < (int)bordered.size(); n++)
            bordered[n] = (unsigned char)(3 * (n % ers) + 50 * (n / ers));
    }
    // Input sample dx columns beside pixel (i, j).
    int src(int i, int j, int dx) const { return bordered[(j + 1) * ers + i + 1 + dx]; }
};

}  // namespace

// The smoothed copy is the finished output's, whatever the team.
TEST(LevelPass, BrightMapChoosesCopyNormalOrFineKernelFromLevelTwoOn) {
    // Bright value and the period of fine pixels ((i + j) mod period = 0);
    // -1 = copied, 0 = never fine, 1 = always fine.
    const std::pair<int, int> cases[] = {{0, -1},  {1, 0},   {9, 0},   {10, 20}, {39, 20},
                                         {40, 10}, {60, 6},  {80, 5},  {100, 4}, {120, 3},
                                         {140, 2}, {200, 2}, {201, 1}, {255, 1}};
    for (bool plain : {true, false})  // both paths, each on its own
        for (auto [bright, period] : cases)
            for (int level : {1, 2}) {  // level 1 ignores the map
                LevelSetup t;
                std::fill(t.map.begin(), t.map.end(), (unsigned char)bright);
                t.a.level = level;
                usePlainPath = plain;
                levelPass(2 + level, t.a);
                usePlainPath = false;
                for (int j = 0; j < t.jMax; j++)
                    for (int i = 0; i < t.iMax; i++) {
                        const bool fine = period > 0 && (i + j) % period == 0;
                        const int dx = level == 1 ? -1 : period < 0 ? 0 : fine ? 1 : -1;
                        EXPECT_EQ(t.out[j * t.iMax + i], t.src(i, j, dx))
                            << "bright " << bright << " level " << level << " at " << i << ","
                            << j << (plain ? " plain" : " SIMD");
                    }
                Bytes smoothed(t.out.size());
                smoothImage3x3(t.out.data(), t.iMax, t.jMax, 1, 8, smoothed.data());
                EXPECT_EQ(t.smooth, smoothed);
            }
}

namespace {

// A random sparse kernel over the (2b+1)-square window, column-outer and
// row-inner, with weights in [0, 1).
std::vector<KernelEntry> randomKernel(std::mt19937 &gen, int b, int keepPercent) {
    std::vector<KernelEntry> k;
    std::uniform_real_distribution<float> factor(0.0f, 1.0f);
    for (int x = 0; x <= 2 * b; x++)
        for (int y = 0; y <= 2 * b; y++)
            if ((int)(gen() % 100) < keepPercent || (x == b && y == b))
                k.push_back({x, y, factor(gen), 0.0f, 0.0f, 0.0f});
    return k;
}

struct LevelPassSimd : testing::TestWithParam<int> {
    void TearDown() override { simd::levelPassBandRows = 0; }
};

}  // namespace

// Seeds 28..31: every anti-diagonal period under a kernel wide enough that a
// row's sparse fine pixels fill several blocks. The reference runs on one
// thread; every fourth seed the SIMD pass on a team of two or three.
TEST_P(LevelPassSimd, MatchesPlainPassWithHandMadeKernels) {
    CIELab_Init(2);
    // A range table of unrelated values: an index off by one anywhere
    // (truncation, clamp, a fused multiply-add in the distance) shows.
    std::vector<float> expLut(EXP_LUT_ENTRIES);
    std::mt19937 tableGen(7);
    for (float &v : expLut) v = std::uniform_real_distribution<float>(0.0f, 1.0f)(tableGen);
    const int sizes[][2] = {{1, 3}, {5, 1}, {7, 9}, {16, 5}, {17, 6}, {33, 4}, {64, 30}};
    const int seed = GetParam();
    std::mt19937 gen(seed);
    const bool periodic = seed >= 28;
    const int iMax = periodic ? 163 : sizes[seed % 7][0];
    const int jMax = periodic ? 9 : sizes[seed % 7][1];
    const int spp = seed % 2 ? 3 : 1;
    const int gaussOnly = !periodic && seed % 4 == 2;
    const int b = periodic ? 12 : 1 + (int)(gen() % 3);
    const int nbProc = seed % 4 != 3 ? 1 : 2 + seed / 4 % 2;
    // Weights around 1/n or above: sums straddle 1, so some pixels of a
    // vector are normalised and others not; gauss-only weights summing to
    // about 1.3 make the stores of bright areas wrap.
    const float scale = gaussOnly ? 2.6f : 3.0f;
    std::vector<KernelEntry> normal = randomKernel(gen, b, 45), fine = randomKernel(gen, b, 85);
    for (auto &e : normal) e.factor = e.factor * scale / normal.size();
    for (auto &e : fine) e.factor = e.factor * scale / fine.size();
    Bytes in = testsupport::testPicture(seed / 2 % 6, iMax, jMax, spp, seed);
    Bytes map = testsupport::brightMap(periodic ? 4 : 1 + seed % 3, iMax, jMax, seed);
    ImageWithBorder img{.inputImage = in.data(), .borderWidth = b, .mainImageHasBorders = 1};
    ASSERT_NE(createOutsideImageBorders(iMax, jMax, spp, 8, &img), -4);
    LevelPassArgs a = levelArgs(img, iMax, jMax, spp, b, normal, fine, expLut.data(), map.data());
    a.largestHalfKernelSize = (int)(gen() % (b + 1));  // where copied pixels come from
    a.levelGaussOnly = gaussOnly;
    a.level = !periodic && seed % 5 == 0 ? 1 : 2;
    SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << " spp " << spp << " b " << b
                                    << " gauss " << gaussOnly << " level " << a.level);

    // The level's output and its smoothed copy, joined.
    const auto run = [&](bool plain) {
        Bytes r(2 * in.size(), 0xA5);
        a.imgOutput = r.data();
        a.smoothImg = r.data() + in.size();
        usePlainPath = plain;
        if (!plain) {  // the SIMD path must cover these levels
            simd::LevelPlan *plan = simd::planLevel(nbProc, a);
            EXPECT_NE(plan, nullptr);
            simd::releaseLevelPlan(plan);
        }
        levelPass(plain ? 1 : nbProc, a);
        usePlainPath = false;
        return r;
    };
    const Bytes want = run(true);
    testsupport::forEachTarget([&](int) {
        for (int rows : {0, 1, 3, 7}) {  // bands of rows (0: the usual size)
            simd::levelPassBandRows = rows;
            EXPECT_EQ(testsupport::firstDifference(want, run(false), iMax, spp), "")
                << "band " << rows << " (rows jMax.. are the smoothed copy)";
        }
    });
    freeOutsideImageBorders(&img);
}
INSTANTIATE_TEST_SUITE_P(Seeds, LevelPassSimd, testing::Range(0, 32));
