// The vectorised level pass and smoothing against the per-pixel reference,
// byte for byte, on every instruction set compiled in: whole pyramids
// (towers and diff towers) and single level passes with hand-made kernels
// that reach the unnormalised-weight and wrapping-store cases.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;

namespace {

using Bytes = std::vector<unsigned char>;

class FastPath : public testing::Test {
protected:
    static void SetUpTestSuite() { CIELab_Init(2); }
    void TearDown() override {
        usePlainPath = false;
        simd::levelPassBandRows = 0;
        hwy::SetSupportedTargetsForTest(0);
    }
};

// Runs f once per instruction set the fast path was compiled for and this
// processor has, with dispatch forced to it.
template <class F>
void forEachTarget(F f) {
    for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
        SCOPED_TRACE(hwy::TargetName(target));
        hwy::SetSupportedTargetsForTest(target);
        ASSERT_STREQ(simd::targetName(), hwy::TargetName(target));
        f();
    }
    hwy::SetSupportedTargetsForTest(0);
}

// "" when equal, else the first differing pixel and sample.
std::string firstDifference(const Bytes &want, const Bytes &got, int iMax, int spp) {
    if (want.size() != got.size()) return "sizes differ";
    for (size_t k = 0; k < want.size(); k++) {
        if (want[k] == got[k]) continue;
        const size_t pixel = k / spp;
        std::ostringstream s;
        s << "(" << pixel % iMax << ", " << pixel / iMax << ") sample " << k % spp << ": plain "
          << (int)want[k] << ", fast " << (int)got[k];
        return s.str();
    }
    return "";
}

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

TEST_F(FastPath, PyramidTowersAndDiffsMatchPlainPath) {
    // 1xN, Nx1, smaller than a kernel, even sides below 24, odd widths
    // that leave part of a vector, and a larger picture.
    const int sizes[][2] = {{1, 1},  {1, 13}, {14, 1},  {2, 2},  {3, 5},  {6, 4},
                            {10, 8}, {17, 12}, {22, 18}, {33, 9}, {63, 7}, {96, 80}};
    int caseNo = 0;
    for (const auto &size : sizes)
        for (int spp : {1, 3})
            for (int variant = 0; variant < 3; variant++, caseNo++) {
                const int iMax = size[0], jMax = size[1];
                const uint32_t seed = 1000 + caseNo;
                const int gaussOnly = variant == 2;
                const Bytes in = makeImage(caseNo % 6, iMax, jMax, spp, seed);
                Bytes map = makeMap(1 + caseNo % 3, iMax, jMax, seed);
                Bytes *bright = variant == 1 || gaussOnly ? &map : nullptr;
                const int nbProc = teamSize(caseNo);
                // Colour planes in bands of 1, 3 or 7 rows (0: the usual size):
                // the rows a band keeps from the last one must be the same.
                const int bandRows[] = {0, 1, 3, 7};
                SCOPED_TRACE(testing::Message() << iMax << "x" << jMax << " spp " << spp
                                                << " variant " << variant << " threads " << nbProc
                                                << " band " << bandRows[caseNo % 4]);
                const Bytes want = pyramid(in, iMax, jMax, spp, gaussOnly, bright, nbProc, true);
                simd::levelPassBandRows = bandRows[caseNo % 4];
                forEachTarget([&] {
                    const Bytes got =
                        pyramid(in, iMax, jMax, spp, gaussOnly, bright, nbProc, false);
                    for (int part = 0; part < 4; part++) {
                        const size_t n = in.size();
                        const Bytes a(want.begin() + part * n, want.begin() + (part + 1) * n);
                        const Bytes b(got.begin() + part * n, got.begin() + (part + 1) * n);
                        EXPECT_EQ(firstDifference(a, b, iMax, spp), "")
                            << (part < 2 ? "tower " : "diff ") << part % 2 + 1;
                    }
                });
            }
}

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

TEST_F(FastPath, LevelPassMatchesPlainPassWithHandMadeKernels) {
    // A range table of unrelated values: an index off by one anywhere
    // (truncation, clamp, a fused multiply-add in the distance) shows.
    std::vector<float> expLut(EXP_LUT_ENTRIES);
    std::mt19937 tableGen(7);
    for (float &v : expLut) v = std::uniform_real_distribution<float>(0.0f, 1.0f)(tableGen);
    const int sizes[][2] = {{1, 3}, {5, 1}, {7, 9}, {16, 5}, {17, 6}, {33, 4}, {64, 30}};
    for (int seed = 0; seed < 32; seed++) {
        std::mt19937 gen(seed);
        // The last seeds: every anti-diagonal period under a kernel wide
        // enough that a row's sparse fine pixels fill several blocks.
        const bool periodic = seed >= 28;
        const int iMax = periodic ? 163 : sizes[seed % 7][0];
        const int jMax = periodic ? 9 : sizes[seed % 7][1];
        const int spp = seed % 2 ? 3 : 1;
        const int gaussOnly = !periodic && seed % 4 == 2;
        const int level = !periodic && seed % 5 == 0 ? 1 : 2;
        const int b = periodic ? 12 : 1 + (int)(gen() % 3);
        const int nbProc = teamSize(seed);
        // Weights around 1/n or above: sums straddle 1, so some pixels of a
        // vector are normalised and others not; gauss-only weights summing
        // to about 1.3 make the stores of bright areas wrap.
        const float scale = gaussOnly ? 2.6f : 3.0f;
        std::vector<KernelEntry> normal = randomKernel(gen, b, 45);
        std::vector<KernelEntry> fine = randomKernel(gen, b, 85);
        for (auto &e : normal) e.factor = e.factor * scale / normal.size();
        for (auto &e : fine) e.factor = e.factor * scale / fine.size();
        Bytes in = makeImage(seed / 2 % 6, iMax, jMax, spp, seed);
        Bytes map = makeMap(periodic ? 4 : 1 + seed % 3, iMax, jMax, seed);
        SCOPED_TRACE(testing::Message() << "seed " << seed << ": " << iMax << "x" << jMax
                                        << " spp " << spp << " b " << b << " gauss "
                                        << gaussOnly << " level " << level);

        ImageWithBorder img;
        img.inputImage = in.data();
        img.borderWidth = b;
        img.mainImageHasBorders = 1;
        ASSERT_NE(createOutsideImageBorders(iMax, jMax, spp, 8, &img), -4);
        const int rowStride = iMax * spp;
        const int ext = (iMax + 2 * b) * spp;
        LevelPassArgs a{};
        a.img = a.filterImg = &img;
        a.filterSpp = a.spp = spp;
        a.filterBps = a.bps = 8;
        a.byteDepth = 1;
        a.filterRowStride = a.rowStride = a.rowStrideBytes = rowStride;
        a.filterExtendedRowStride = a.extendedRowStride = ext;
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
        a.kernelStep = 1;
        a.largestHalfKernelSize = (int)(gen() % (b + 1));  // where copied pixels come from
        a.levelGaussOnly = gaussOnly;
        a.level = level;
        a.rangeKernelSigma = 0.2f;
        a.imageHasBorder = 1;

        const auto run = [&](bool plain) {
            LevelResult r{Bytes(in.size(), 0xA5), Bytes(in.size(), 0x3C)};
            a.imgOutput = r.output.data();
            a.smoothImg = r.smoothed.data();
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
        const LevelResult want = run(true);
        forEachTarget([&] {
            for (int rows : {0, 1, 3, 7}) {
                simd::levelPassBandRows = rows;
                const LevelResult got = run(false);
                EXPECT_EQ(firstDifference(want.output, got.output, iMax, spp), "")
                    << "output, band " << rows;
                EXPECT_EQ(firstDifference(want.smoothed, got.smoothed, iMax, spp), "")
                    << "smoothed, band " << rows;
            }
        });
        simd::levelPassBandRows = 0;
        freeOutsideImageBorders(&img);
    }
}

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
            forEachTarget([&] {
                EXPECT_EQ(firstDifference(want, smooth(false), iMax, spp), "")
                    << iMax << "x" << jMax << " spp " << spp;
            });
        }
}

}  // namespace
