// The SIMD path against the plain reference, byte for byte, on every
// instruction set compiled in: the level pass (whole pyramids, and single
// passes with hand-made kernels that reach the unnormalised-weight and
// wrapping-store cases), the smoothing rows, the raw weights and the
// reconstruction (alone, their aborts, and whole fusions of bracket crops
// and made-up brackets). Each whole fusion refills the CIELab table, so each
// reference is computed once and the instruction sets share it, each with
// another team size.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "blend/blend.h"
#include "core/switches.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;
using Bytes = std::vector<unsigned char>;

namespace {

struct FastPath : testing::Test {
    static void SetUpTestSuite() { CIELab_Init(2); }
    void TearDown() override {
        usePlainPath = false;
        simd::levelPassBandRows = 0;
        hwy::SetSupportedTargetsForTest(0);
    }
};
using FastPathDeathTest = FastPath;
// Sweeps over sizes or seeds, one test each (a fixture per sweep).
struct FastPathCase : FastPath, testing::WithParamInterface<int> {};
struct FastPathPyramid : FastPathCase {};
struct FastPathLevel : FastPathCase {};
struct FastPathReconstruction : FastPathCase {};

// Runs f(targetIndex) once per instruction set the SIMD path was compiled
// for and this processor has, with dispatch forced to it.
template <class F>
void forEachTarget(F f) {
    int index = 0;
    for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
        SCOPED_TRACE(hwy::TargetName(target));
        hwy::SetSupportedTargetsForTest(target);
        ASSERT_STREQ(simd::targetName(), hwy::TargetName(target));
        f(index++);
    }
    hwy::SetSupportedTargetsForTest(0);
}

// "" when equal, else the first differing byte with its pixel and sample.
std::string firstDifference(const Bytes &want, const Bytes &got, int iMax, int spp,
                            int bytesPerSample = 1) {
    if (want.size() != got.size()) return "sizes differ";
    const size_t k = std::mismatch(want.begin(), want.end(), got.begin()).first - want.begin();
    if (k == want.size()) return "";
    const size_t pixel = k / bytesPerSample / spp;
    std::ostringstream s;
    s << "byte " << k << " (pixel " << pixel % iMax << ", " << pixel / iMax << " sample "
      << k / bytesPerSample % spp << "): plain " << (int)want[k] << ", fast " << (int)got[k];
    return s.str();
}

// ---------------------------------------------------------------------------
// Level pass and smoothing

// Test pictures: 0 noise, 1 flat, 2 steps and a hard diagonal edge,
// 3 gradients, 4 near-white with a dark block, 5 noise on steps.
Bytes makeImage(int kind, int iMax, int jMax, int spp, uint32_t seed) {
    if (kind == 0) return testsupport::randomImage(iMax, jMax, spp, seed);
    std::mt19937 gen(seed);
    const int lo = (int)(gen() % 60), hi = 190 + (int)(gen() % 66);
    Bytes img((size_t)iMax * jMax * spp);
    for (int y = 0; y < jMax; y++)
        for (int x = 0; x < iMax; x++)
            for (int s = 0; s < spp; s++) {
                int v = 0;
                switch (kind) {
                    case 1: v = (lo + 70 * s) % 256; break;
                    case 2:
                        v = ((x / 5 + y / 4) % 2 || x > y + s) ? hi - 40 * s : lo + 20 * s;
                        break;
                    case 3: v = (s == 0 ? x * 255 / std::max(iMax - 1, 1)
                                        : s == 1 ? y * 255 / std::max(jMax - 1, 1)
                                                 : (x + y) % 256);
                        break;
                    case 4: v = (x % 11 < 3 && y % 7 < 3) ? lo : 250 + (int)(gen() % 6); break;
                    default: v = ((x / 6 + y / 5) % 2 ? hi : lo) + (int)(gen() % 21) - 10; break;
                }
                img[((size_t)y * iMax + x) * spp + s] = (unsigned char)std::clamp(v, 0, 255);
            }
    return img;
}

// Bright maps: 1 noise; 2 every bright-value band (0, 5, 10..200 by 10, 255)
// in blocks; 3 all 100 (fine kernel on every fourth anti-diagonal); 4 rows
// cycling through the anti-diagonal periods 20, 10, 6, 5, 4, 3 and 2, with
// columns 32..63 all fine (whole vectors of fine lanes among sparse ones).
Bytes makeMap(int kind, int iMax, int jMax, uint32_t seed) {
    if (kind == 1) return testsupport::randomImage(iMax, jMax, 1, seed);
    if (kind == 4) {
        static const int periods[] = {30, 50, 70, 90, 110, 130, 150};
        Bytes map((size_t)iMax * jMax);
        for (int y = 0; y < jMax; y++)
            for (int x = 0; x < iMax; x++)
                map[(size_t)y * iMax + x] =
                    (unsigned char)(x / 32 == 1 ? 255 : periods[(y + seed) % 7]);
        return map;
    }
    static const int bands[] = {0,   5,   10,  20,  30,  40,  50,  60,  70,  80,  90,  100, 110,
                                120, 130, 140, 150, 160, 170, 180, 190, 200, 255};
    Bytes map((size_t)iMax * jMax, 100);
    if (kind == 2)
        for (int y = 0; y < jMax; y++)
            for (int x = 0; x < iMax; x++)
                map[(size_t)y * iMax + x] = (unsigned char)bands[(x / 3 + y * 5 + seed) % 23];
    return map;
}

// Mostly one thread; every fourth case a team of two or three, whose rows
// are shared dynamically.
int teamSize(int caseNo) { return caseNo % 4 != 3 ? 1 : 2 + caseNo / 4 % 2; }

float driverMult(int iMax, int jMax) {
    const int imgSize = (iMax + jMax) / 2;
    const float factorMult = sqrtf((float)imgSize) / 56.56854248046875f * 10.0f;
    return std::max(1.0f, 5.0f * factorMult);
}

// Two-level fusion2a with the driver's parameters (the bright mask blur's
// sigmas for gauss-only runs); returns both towers and both diffs, joined.
Bytes pyramid(const Bytes &in, int iMax, int jMax, int spp, int gaussOnly, Bytes *map,
              int nbProc, bool plain) {
    const size_t size = in.size();
    Bytes all(4 * size, 0x5A);
    unsigned char *tower[2] = {all.data(), all.data() + size};
    unsigned char *diffs[2] = {all.data() + 2 * size, all.data() + 3 * size};
    const float sigma = gaussOnly ? 10.0f : 0.2f;
    usePlainPath = plain;
    srand(0);
    testing::internal::CaptureStderr();
    fusion2a(nbProc, 2, 7.0f, driverMult(iMax, jMax), sigma, sigma, gaussOnly, iMax, jMax, spp,
             8, const_cast<unsigned char *>(in.data()), spp, 8, nullptr,
             map ? map->data() : nullptr, nullptr, nullptr, diffs, tower, nullptr);
    testing::internal::GetCapturedStderr();
    usePlainPath = false;
    return all;
}

// 1xN, Nx1, smaller than a kernel, even sides below 24, odd widths that
// leave part of a vector, and a larger picture; one- and three-sample, each
// plain, with a bright map and gauss-only.
TEST_P(FastPathPyramid, TowersAndDiffsMatchPlainPath) {
    const int sizes[][2] = {{1, 1},  {1, 13}, {14, 1},  {2, 2},  {3, 5},  {6, 4},
                            {10, 8}, {17, 12}, {22, 18}, {33, 9}, {63, 7}, {96, 80}};
    const int iMax = sizes[GetParam()][0], jMax = sizes[GetParam()][1];
    int caseNo = 6 * GetParam();
    for (int spp : {1, 3})
        for (int variant = 0; variant < 3; variant++, caseNo++) {
            const uint32_t seed = 1000 + caseNo;
            const int gaussOnly = variant == 2;
            const Bytes in = makeImage(caseNo % 6, iMax, jMax, spp, seed);
            Bytes map = makeMap(1 + caseNo % 3, iMax, jMax, seed);
            Bytes *bright = variant == 1 || gaussOnly ? &map : nullptr;
            const int nbProc = teamSize(caseNo);
            // Colour planes in bands of 1, 3 or 7 rows (0: the usual size):
            // the rows a band keeps from the last one must be the same.
            const int bandRows[] = {0, 1, 3, 7};
            SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << " spp " << spp << " variant "
                                            << variant << " threads " << nbProc << " band "
                                            << bandRows[caseNo % 4]);
            const Bytes want = pyramid(in, iMax, jMax, spp, gaussOnly, bright, nbProc, true);
            simd::levelPassBandRows = bandRows[caseNo % 4];
            forEachTarget([&](int) {
                EXPECT_EQ(firstDifference(want, pyramid(in, iMax, jMax, spp, gaussOnly, bright,
                                                        nbProc, false), iMax, spp), "")
                    << "rows of jMax each: tower 1, tower 2, diff 1, diff 2";
            });
        }
}
INSTANTIATE_TEST_SUITE_P(Sizes, FastPathPyramid, testing::Range(0, 12));

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

struct LevelResult {
    Bytes output, smoothed;
};

// Seeds 28..31: every anti-diagonal period under a kernel wide enough that a
// row's sparse fine pixels fill several blocks.
TEST_P(FastPathLevel, PassMatchesPlainPassWithHandMadeKernels) {
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
    const int level = !periodic && seed % 5 == 0 ? 1 : 2;
    const int b = periodic ? 12 : 1 + (int)(gen() % 3);
    const int nbProc = teamSize(seed);
    // Weights around 1/n or above: sums straddle 1, so some pixels of a
    // vector are normalised and others not; gauss-only weights summing to
    // about 1.3 make the stores of bright areas wrap.
    const float scale = gaussOnly ? 2.6f : 3.0f;
    std::vector<KernelEntry> normal = randomKernel(gen, b, 45);
    std::vector<KernelEntry> fine = randomKernel(gen, b, 85);
    for (auto &e : normal) e.factor = e.factor * scale / normal.size();
    for (auto &e : fine) e.factor = e.factor * scale / fine.size();
    Bytes in = makeImage(seed / 2 % 6, iMax, jMax, spp, seed);
    Bytes map = makeMap(periodic ? 4 : 1 + seed % 3, iMax, jMax, seed);
    SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << " spp " << spp << " b " << b
                                    << " gauss " << gaussOnly << " level " << level);

    ImageWithBorder img;
    img.inputImage = in.data();
    img.borderWidth = b;
    img.mainImageHasBorders = 1;
    ASSERT_NE(createOutsideImageBorders(iMax, jMax, spp, 8, &img), -4);
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
    a.expLut = expLut.data();
    a.brightImage = map.data();
    a.iMax = iMax;
    a.jMax = jMax;
    a.physicalKernelSize = a.largestPhysicalKernelSize = 2 * b + 1;
    a.halfKernelSize = b;
    a.largestHalfKernelSize = (int)(gen() % (b + 1));  // where copied pixels come from
    a.levelGaussOnly = gaussOnly;
    a.level = level;
    a.rangeKernelSigma = 0.2f;
    a.imageHasBorder = 1;

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
        levelPass(nbProc, a);
        usePlainPath = false;
        return r;
    };
    const Bytes want = run(true);
    forEachTarget([&](int) {
        for (int rows : {0, 1, 3, 7}) {
            simd::levelPassBandRows = rows;
            EXPECT_EQ(firstDifference(want, run(false), iMax, spp), "")
                << "band " << rows << " (rows jMax.. are the smoothed copy)";
        }
    });
    freeOutsideImageBorders(&img);
}
INSTANTIATE_TEST_SUITE_P(Seeds, FastPathLevel, testing::Range(0, 32));

TEST_F(FastPath, SmoothingRowsMatchPlainRowsUpToFullWhiteSums) {
    for (int iMax = 1; iMax <= 41; iMax += 4)
        for (int spp : {1, 3}) {
            const int jMax = 5;
            // Near white, so that nine-sample sums reach 9 * 255.
            Bytes in = testsupport::randomImage(iMax, jMax, spp, iMax * 7 + spp);
            for (size_t k = 0; k < in.size(); k++)
                if (k % 5 != 0) in[k] = (unsigned char)(255 - in[k] % 3);
            const auto smooth = [&](bool plain) {
                Bytes out(in.size(), 0xEE);
                usePlainPath = plain;
#pragma omp parallel num_threads(teamSize(iMax / 4 + spp))
                smoothImage3x3(in.data(), iMax, jMax, spp, 8, out.data());
                usePlainPath = false;
                return out;
            };
            const Bytes want = smooth(true);
            forEachTarget([&](int) {
                EXPECT_EQ(firstDifference(want, smooth(false), iMax, spp), "")
                    << iMax << "x" << jMax << " spp " << spp;
            });
        }
}

// ---------------------------------------------------------------------------
// Raw weights, reconstruction and whole fusions

// The reference raw weight loop (plain) or the vectorised one.
Bytes rawWeights(bool plain, int kMax, int iMax, int jMax, Bytes *images, float *ce, float *ceLast,
                 int highlight) {
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

TEST_F(FastPath, RawWeightsMatchPerPixelLoopWithBothTableRulesAndHighlightShift) {
    float ce[256], ceOther[256], unused[256];
    int caseNo = 0;
    for (float strength : {15.0f, 0.5f, 60.0f})
        for (int kMax = 1; kMax <= 3; kMax++)
            for (int variant = 0; variant < 3; variant++, caseNo++) {
                // 0: one table (the driver's call), 1: a separate last-image table, 2: highlight shift.
                if (variant == 2 && kMax != 2) continue;
                buildErrorCoefficients(strength, ce, unused);
                buildErrorCoefficients(strength * 0.7f, ceOther, unused);
                const int iMax = 1 + caseNo % 7 * 11, jMax = 3 + caseNo % 4, n = iMax * jMax;
                Bytes images[3];
                std::mt19937 gen(caseNo);
                for (int k = 0; k < kMax; k++) {
                    images[k] = testsupport::randomImage(iMax, jMax, 3, 100 * caseNo + k);
                    for (int p = 0; p < n; p++)  // near-white runs for the highlight shift, and mid-grey
                        if (gen() % 3 == 0)
                            for (int s = 0; s < 3; s++)
                                images[k][3 * p + s] = (unsigned char)(p % 5 ? 235 + gen() % 21 : 128);
                }
                SCOPED_TRACE(testing::Message() << "case " << caseNo << " (strength " << strength
                                                << ", variant " << variant << ")");
                float *ceLast = variant == 1 ? ceOther : ce;
                const Bytes want = rawWeights(true, kMax, iMax, jMax, images, ce, ceLast, variant == 2);
                forEachTarget([&](int) {
                    const Bytes got = rawWeights(false, kMax, iMax, jMax, images, ce, ceLast, variant == 2);
                    EXPECT_EQ(firstDifference(want, got, n, 1, 1), "") << "(x: pixel, y: plane)";
                });
            }
}

TEST_F(FastPathDeathTest, RawWeightZeroSumInsideAVectorAbortsOnTheWeightAssertion) {
    // So large a strength zeroes every table entry far from 128: a black pixel's weights are 0/0.
    float ce[256], cePreserve[256];
    buildErrorCoefficients(1e6f, ce, cePreserve);
    Bytes images[2] = {Bytes(64 * 3, 128), Bytes(64 * 3, 128)};
    for (Bytes &img : images) std::fill(img.begin() + 21 * 3, img.begin() + 22 * 3, 0);
    forEachTarget([&](int) {
        EXPECT_DEATH(rawWeights(false, 2, 16, 4, images, ce, ce, 0),
                     "BilateralFilter:[0-9]+: calculatePoids8Alt: Assertion `poids\\[k\\] <= 1.0f' failed");
    });
}

// Towers, weight planes and sources of a made-up reconstruction.
struct Scene {
    std::vector<Bytes> tower, diff;
    Bytes poids, images, fused, out;
    std::vector<unsigned char *> towerPtr, diffPtr;
    std::vector<float> sharpLUT = std::vector<float>(258);
    ReconstructionArgs a{};

    Scene(int kMax, int iMax, int jMax, int highlight, int threshold, float sharpness, float sat,
          int bpsOut, int rgb2bgr, uint32_t seed) {
        std::mt19937 gen(seed);
        const size_t plane = (size_t)iMax * jMax, image = plane * 3;
        auto bytes = [&](size_t n, int lo, int hi) {
            Bytes b(n);
            for (auto &v : b) v = (unsigned char)(lo + gen() % (hi - lo + 1));
            return b;
        };
        for (int s = 0; s < 2 * kMax; s++) {
            towerPtr.push_back(tower.emplace_back(bytes(image, 0, 255)).data());
            diffPtr.push_back(diff.emplace_back(bytes(image, s % 2 ? 0 : 96, s % 2 ? 255 : 160)).data());
        }
        poids = bytes(plane * kMax * 3, 0, 255);
        for (int lev = 0; highlight && lev < 3; lev++)  // image 0's weights never 0: no pixel aborts
            for (size_t p = 0; p < plane; p++) poids[lev * kMax * plane + p] |= 1;
        images = bytes(image * kMax, 0, 255);
        fused = bytes(image, 0, 255);
        for (size_t p = 0; p < plane; p += 3) std::memset(&fused[3 * p], 250, 3);  // lum > 240
        out = Bytes(image * bpsOut / 8, 0x5A);
        for (int i = 0; i <= 128; i++) {
            const float f = i * (10.0f / 128);
            sharpLUT[i] = (float)std::exp((double)(-f * f / 0.2f)) * (sharpness / 5.0f);
        }
        a = {.rowIn = (size_t)iMax * 3, .imageStride = image, .poidsImageStride = plane,
             .resImage = out.data(), .outputImageTower = towerPtr.data(), .outputImageDiffTower = diffPtr.data(),
             .poidsBuffer = poids.data(), .results = nullptr, .imagesBuffer = images.data(),
             .fusedResult = highlight ? fused.data() : nullptr, .coeffErreur = nullptr, .sharpLUT = sharpLUT.data(),
             .numLevels = 2,
             .byteDepthBpsIn = 1, .byteDepthBpsOut = bpsOut / 8, .max7 = 128, .sharpnessFactor = sharpness / 5.0f,
             .satCoeff = sat, .kMax = kMax, .jMax = jMax, .iMax = iMax, .spp = 3, .bpsIn = 8, .bitDepthPoids = 8,
             .bpsOut = bpsOut, .byteDepthPoids = 1, .rowOut = iMax * 3, .fusionPreserveHighlights = highlight,
             .darkMergeThreshold = threshold, .rgb2bgr = rgb2bgr};
    }

    Bytes run(int nbProc, bool plain) {
        std::fill(out.begin(), out.end(), 0x5A);
        usePlainPath = plain;
        reconstruct(nbProc, a);  // TearDown resets usePlainPath
        return out;
    }
};

// Modes 0-1: ordinary with 3 and 1 images; 2-5: highlight mode, threshold 0
// and in each merge branch; every output form among them.
TEST_P(FastPathReconstruction, MatchesPerPixelCodeInBothModesAndEveryOutputForm) {
    const int sizes[][2] = {{37, 5}, {1, 7}, {9, 1}, {16, 3}, {3, 2}, {70, 4}};
    const int thresholds[4] = {0, 108, 151, 216};
    const float saturations[4] = {1.0f, 0.0f, 1.5f, 0.4f};
    const int iMax = sizes[GetParam()][0], jMax = sizes[GetParam()][1];
    for (int mode = 0, caseNo = 6 * GetParam(); mode < 6; mode++, caseNo++) {
        const int highlight = mode >= 2, kMax = highlight ? 2 : mode == 0 ? 3 : 1;
        const float sharpness = caseNo % 3 == 0 ? 0.0f : 2.0f, sat = saturations[caseNo % 4];
        const int bpsOut = caseNo % 2 ? 16 : 8, rgb2bgr = caseNo / 2 % 2;
        Scene scene(kMax, iMax, jMax, highlight, highlight ? thresholds[mode - 2] : 0, sharpness,
                    sat, bpsOut, rgb2bgr, caseNo);
        ASSERT_TRUE(simd::reconstructionCovers(scene.a));
        SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << " mode " << mode << " sharpness "
                                        << sharpness << " sat " << sat << " bpsOut " << bpsOut
                                        << " bgr " << rgb2bgr);
        const Bytes want = scene.run(2, true);
        forEachTarget([&](int) {
            for (int nbProc = 1; nbProc <= 3; nbProc++)
                EXPECT_EQ(firstDifference(want, scene.run(nbProc, false), iMax, 3, bpsOut / 8), "")
                    << nbProc << " threads";
        });
    }
}
INSTANTIATE_TEST_SUITE_P(Sizes, FastPathReconstruction, testing::Range(0, 6));

TEST_F(FastPathDeathTest, ReconstructionAbortsWithThePerPixelWordsAtTheSamePixel) {
    // Pixel 21 of row 1: both base-level weights 0; pixel 40: the dark weight cut to 0 (dark
    // luminance 0) beside a zero fused weight, leaving 0 / 0. Threshold 0, so factor1 stays 1.
    for (int which = 0; which < 2; which++) {
        Scene scene(2, 48, 2, 1, 0, 2.0f, 1.0f, 8, 0, 5);
        const size_t plane = 96, p = 48 + (which ? 40 : 21);
        std::memset(&scene.fused[3 * p], 200, 3);
        std::memset(&scene.images[3 * p], 30, 3);
        std::memset(&scene.tower[3][3 * p], which ? 0 : 50, 3);  // image 1, coarsest level
        scene.poids[2 * 2 * plane + p] = 0;
        scene.poids[(2 * 2 + 1) * plane + p] = which ? 77 : 0;
        const char *words = which ? "poidsLev\\[0\\]=-?nan\npoidsLev\\[1\\]=-?nan"
                                  : "i=63 j=1 factor1=1.000000 factor2=0.750000 luminance1=200 luminance2=30";
        EXPECT_DEATH(scene.run(2, true), words);
        forEachTarget([&](int) { EXPECT_DEATH(scene.run(2, false), words); });
    }
}

struct Bracket { int w, h; std::vector<Bytes> img; };  // img darkest first

Bracket sampleCrop(int x0, int y0, int w, int h) {
    Bracket b{w, h, std::vector<Bytes>(3, Bytes((size_t)w * h * 3))};
    for (int k = 0; k < 3; k++) {
        const testsupport::RgbImage s = testsupport::loadSample(k);
        for (int y = 0; y < h; y++)
            std::memcpy(&b.img[k][(size_t)y * w * 3], &s.pixels[((size_t)(y0 + y) * s.width + x0) * 3], (size_t)w * 3);
    }
    return b;
}

// kMax: exposures 3 - kMax .. 2 fused, or, with highlight, hx_combi_realistic of `fused` with image 0
// under fusionPreserveInfluence `influence`.
struct Call { const Bracket *b; int kMax; bool highlight; float influence; int bpsOut, rgb2bgr; };

Bytes fuse(const Call &c, const Bytes &fused, int nbProc, bool plain) {
    const int w = c.b->w, h = c.b->h;
    optim_param_struct team{};
    team.nbProc = nbProc;
    float params[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(params);
    params[8] = c.influence;
    Bytes out((size_t)w * h * 3 * c.bpsOut / 8, 0x5A), images, f = fused, dark = c.b->img[0];
    for (int k = 3 - c.kMax; k < 3; k++) images.insert(images.end(), c.b->img[k].begin(), c.b->img[k].end());
    usePlainPath = plain;
    testing::internal::CaptureStderr();
    if (c.highlight)
        hx_combi_realistic(team, params, w, h, w * 3, c.rgb2bgr, 3, 8, c.bpsOut, 8, f.data(), dark.data(),
                           out.data(), nullptr);
    else {
        params[7] = 0.0f;
        hx_fusion2(team, params, c.kMax, w, h, w, h, w * 3, c.rgb2bgr, 3, 8, c.bpsOut, 8, nullptr, images.data(),
                   nullptr, out.data(), nullptr);
    }
    testing::internal::GetCapturedStderr();
    return out;
}

// The reference once on the plain path (two threads), then every instruction set with its own
// team size. Returns the reference.
Bytes expectSameFusion(const Call &c, const Bytes &fused, int shift) {
    SCOPED_TRACE(testing::Message() << c.b->w << "x" << c.b->h << " kMax " << c.kMax << " highlight " << c.highlight
                                    << " influence " << c.influence << " bpsOut " << c.bpsOut << " bgr " << c.rgb2bgr);
    const Bytes want = fuse(c, fused, 2, true);
    forEachTarget([&](int t) {
        const int nbProc = 1 + (t + shift) % 3;
        EXPECT_EQ(firstDifference(want, fuse(c, fused, nbProc, false), c.b->w, 3, c.bpsOut / 8), "")
            << nbProc << " threads";
    });
    return want;
}

TEST_F(FastPath, SampleCropsFuseAndPreserveHighlightsAsThePlainPathDoes) {
    const Bracket even = sampleCrop(200, 150, 96, 72), odd = sampleCrop(331, 17, 61, 45);
    expectSameFusion({&even, 2, true, 10.0f, 16, 1}, expectSameFusion({&even, 3, false, 10.0f, 8, 0}, {}, 0), 1);
    // Influence 3 puts the merge threshold at 151, between the two luminances.
    expectSameFusion({&odd, 2, true, 3.0f, 8, 0}, expectSameFusion({&odd, 3, false, 10.0f, 16, 1}, {}, 2), 0);
}

TEST_F(FastPath, SampleCropsFuseAsThePlainPathDoesDownToOnePixelWide) {
    const Bracket crop = sampleCrop(120, 260, 37, 23), column = sampleCrop(451, 40, 1, 23),
                  row = sampleCrop(7, 301, 29, 1);
    // Influence 0: threshold 216, the fused luminance alone decides.
    expectSameFusion({&crop, 2, true, 0.0f, 16, 0}, expectSameFusion({&crop, 2, false, 10.0f, 8, 1}, {}, 1), 2);
    expectSameFusion({&column, 3, false, 10.0f, 16, 0}, {}, 0);
    expectSameFusion({&row, 1, false, 10.0f, 8, 1}, {}, 1);
}

}  // namespace
