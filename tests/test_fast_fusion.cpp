// The vectorised raw weights and reconstruction against the per-pixel code,
// byte for byte, on every instruction set compiled in: the two loops alone,
// their aborts, and whole fusions of bracket crops and made-up brackets.
// Each whole fusion refills the CIELab table, so each reference is computed
// once and the instruction sets share it, each with another team size.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
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
using Bytes = std::vector<unsigned char>;

namespace {

// Runs f(targetIndex) once per instruction set compiled in and supported here.
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
std::string firstDifference(const Bytes &want, const Bytes &got, int iMax, int spp, int bytesPerSample) {
    if (want.size() != got.size()) return "sizes differ";
    const size_t k = std::mismatch(want.begin(), want.end(), got.begin()).first - want.begin();
    if (k == want.size()) return "";
    const size_t pixel = k / bytesPerSample / spp;
    std::ostringstream s;
    s << "byte " << k << " (pixel " << pixel % iMax << ", " << pixel / iMax << " sample "
      << k / bytesPerSample % spp << "): plain " << (int)want[k] << ", fast " << (int)got[k];
    return s.str();
}

struct FastFusion : testing::Test {
    void TearDown() override { usePlainPath = false; hwy::SetSupportedTargetsForTest(0); }
};
using FastFusionDeathTest = FastFusion;

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

TEST_F(FastFusion, RawWeightsMatchPerPixelLoopWithBothTableRulesAndHighlightShift) {
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

TEST_F(FastFusionDeathTest, RawWeightZeroSumInsideAVectorAbortsOnTheWeightAssertion) {
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

TEST_F(FastFusion, ReconstructionMatchesPerPixelCodeInBothModesAndEveryOutputForm) {
    const int sizes[][2] = {{37, 5}, {1, 7}, {9, 1}, {16, 3}, {3, 2}, {70, 4}};
    const int thresholds[4] = {0, 108, 151, 216};
    const float saturations[4] = {1.0f, 0.0f, 1.5f, 0.4f};
    int caseNo = 0;
    for (const auto &size : sizes)
        for (int mode = 0; mode < 6; mode++, caseNo++) {
            // Modes 0-1: ordinary with 3 and 1 images; 2-5: highlight mode, threshold 0 and in each merge branch.
            const int highlight = mode >= 2, kMax = highlight ? 2 : mode == 0 ? 3 : 1;
            const float sharpness = caseNo % 3 == 0 ? 0.0f : 2.0f, sat = saturations[caseNo % 4];
            const int bpsOut = caseNo % 2 ? 16 : 8, rgb2bgr = caseNo / 2 % 2;
            Scene scene(kMax, size[0], size[1], highlight, highlight ? thresholds[mode - 2] : 0, sharpness, sat,
                        bpsOut, rgb2bgr, caseNo);
            ASSERT_TRUE(simd::reconstructionCovers(scene.a));
            SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1] << " mode " << mode << " sharpness "
                                            << sharpness << " sat " << sat << " bpsOut " << bpsOut << " bgr " << rgb2bgr);
            const Bytes want = scene.run(2, true);
            forEachTarget([&](int) {
                for (int nbProc = 1; nbProc <= 3; nbProc++)
                    EXPECT_EQ(firstDifference(want, scene.run(nbProc, false), size[0], 3, bpsOut / 8), "")
                        << nbProc << " threads";
            });
        }
}

TEST_F(FastFusionDeathTest, ReconstructionAbortsWithThePerPixelWordsAtTheSamePixel) {
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

// Three exposures (gains 0.5, 1, 2) of a made-up scene: gradients, a flat patch, a white area that
// saturates, a dark area and noise. The darkest stays above 3, where the plain highlight-preserving
// reduction could divide 0 by 0.
Bracket madeUp(int w, int h, uint32_t seed) {
    std::mt19937 gen(seed);
    Bracket b{w, h, std::vector<Bytes>(3, Bytes((size_t)w * h * 3))};
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            for (int s = 0; s < 3; s++) {
                const int region = (x * 4 / w + 2 * (y * 2 / h) + (int)seed) % 6;
                const float flat[5] = {(x + 1.0f) / w * (0.6f + 0.2f * s), (y + 1.0f) / h, 0.3f + 0.1f * s,
                                       0.95f, 0.04f + 0.01f * s};
                const float v = region < 5 ? flat[region] : (float)(gen() % 1000) / 1000.0f;
                for (int k = 0; k < 3; k++)
                    b.img[k][((size_t)y * w + x) * 3 + s] =
                        (unsigned char)std::clamp((int)(v * (0.5f * (1 << k)) * 255.0f), k == 0 ? 4 : 0, 255);
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

TEST_F(FastFusion, SampleCropsFuseAndPreserveHighlightsAsThePlainPathDoes) {
    const Bracket even = sampleCrop(200, 150, 96, 72), odd = sampleCrop(331, 17, 61, 45);
    expectSameFusion({&even, 2, true, 10.0f, 16, 1}, expectSameFusion({&even, 3, false, 10.0f, 8, 0}, {}, 0), 1);
    // Influence 3 puts the merge threshold at 151, between the two luminances.
    expectSameFusion({&odd, 2, true, 3.0f, 8, 0}, expectSameFusion({&odd, 3, false, 10.0f, 16, 1}, {}, 2), 0);
}

TEST_F(FastFusion, MadeUpBracketsFuseAsThePlainPathDoesDownToOnePixelWide) {
    const Bracket scene = madeUp(37, 23, 3), column = madeUp(1, 23, 1), row = madeUp(29, 1, 4);
    // Influence 0: threshold 216, the fused luminance alone decides.
    expectSameFusion({&scene, 2, true, 0.0f, 16, 0}, expectSameFusion({&scene, 2, false, 10.0f, 8, 1}, {}, 1), 2);
    expectSameFusion({&column, 3, false, 10.0f, 16, 0}, {}, 0);
    expectSameFusion({&row, 1, false, 10.0f, 8, 1}, {}, 1);
}

}  // namespace
