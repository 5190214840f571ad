// End-to-end fusion of the shipped bracket (darkest first), the call
// protocol and the commentary. Every call refills the CIELab table, so most
// protocol tests run on a 128x96 view of the bracket.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "internal.h"
#include "sha256.h"
#include "test_support.h"

using namespace lumora;
using Bytes = std::vector<unsigned char>;

namespace {

const unsigned char POISON = 0x5A;

optim_param_struct team(int nbProc) {
    optim_param_struct o{};
    o.nbProc = nbProc;
    return o;
}

// Defaults, with highlight preservation off unless asked for.
struct Params {
    float p[LUMORA_FUSION_PARAM_COUNT];
    explicit Params(bool preserve = false) {
        init_realistic_param(p);
        if (!preserve) p[7] = 0.0f;
    }
};

struct Bracket {
    int w = 0, h = 0;
    Bytes img[3];
    size_t size() const { return (size_t)w * h * 3; }
};

// The bracket, or a w x h view of it at (x0, y0).
Bracket loadBracket(int x0 = 0, int y0 = 0, int w = 0, int h = 0) {
    Bracket b;
    for (int k = 0; k < 3; k++) {
        const testsupport::RgbImage s = testsupport::loadSample(k);
        b.w = w ? w : s.width;
        b.h = h ? h : s.height;
        b.img[k].resize(b.size());
        for (int y = 0; y < b.h; y++)
            std::memcpy(&b.img[k][(size_t)y * b.w * 3],
                        &s.pixels[((size_t)(y0 + y) * s.width + x0) * 3], (size_t)b.w * 3);
    }
    return b;
}
Bracket crop() { return loadBracket(176, 96, 128, 96); }

struct Fusion {
    int result = 0;
    Bytes out;  // poisoned before the call
};

// hx_fusion2 of the images ks; origX/origY 0 mean the view is the picture.
Fusion fuse(const Bracket &b, std::initializer_list<int> ks, float *params, int nbProc = 2,
            ProgressCallback cb = nullptr, int bpsOut = 8, int rgb2bgr = 0, int origX = 0,
            int origY = 0) {
    Bytes images;
    for (int k : ks) images.insert(images.end(), b.img[k].begin(), b.img[k].end());
    Fusion f{0, Bytes(b.size() * (bpsOut / 8), POISON)};
    f.result = hx_fusion2(team(nbProc), params, (int)ks.size(), b.w, b.h, origX ? origX : b.w,
                          origY ? origY : b.h, b.w * 3, rgb2bgr, 3, 8, bpsOut, 8, nullptr,
                          images.data(), nullptr, f.out.data(), cb);
    return f;
}

Fusion combine(const Bracket &b, Bytes fused, Bytes dark, float *params, int nbProc = 2,
               ProgressCallback cb = nullptr) {
    Fusion f{0, Bytes(b.size(), POISON)};
    f.result = hx_combi_realistic(team(nbProc), params, b.w, b.h, b.w * 3, 0, 3, 8, 8, 8,
                                  fused.data(), dark.data(), f.out.data(), cb);
    return f;
}

bool untouched(const Bytes &out) {
    return std::all_of(out.begin(), out.end(), [](unsigned char v) { return v == POISON; });
}
std::string digest(const Bytes &out) { return testsupport::sha256Hex(out.data(), out.size()); }
int lum(const Bytes &img, size_t p) { return (img[3 * p] + img[3 * p + 1] + img[3 * p + 2]) / 3; }

double meanAbsDiff(const Bytes &a, const Bytes &b) {
    double s = 0;
    for (size_t i = 0; i < a.size(); i++) s += std::abs(a[i] - b[i]);
    return s / a.size();
}

// Mean luminance of img where mask holds; share receives the masked fraction.
double meanLum(const Bytes &img, const std::vector<bool> &mask, double *share = nullptr) {
    double s = 0;
    size_t n = 0;
    for (size_t p = 0; p < mask.size(); p++)
        if (mask[p]) s += lum(img, p), n++;
    if (share) *share = (double)n / mask.size();
    return n ? s / n : 0.0;
}

// Progress recorder: cancels on call number cancelAt (1-based), or on the
// final 1.0 when cancelAt is -1.
std::vector<float> g_amounts;
int g_cancelAt = 0;
void record(int *cancel, float amount) {
    g_amounts.push_back(amount);
    if ((int)g_amounts.size() == g_cancelAt || (g_cancelAt == -1 && amount == 1.0f)) *cancel = 1;
}
void resetProgress(int cancelAt) {
    g_amounts.clear();
    g_cancelAt = cancelAt;
}

// The spatial growth factor that the driver derives from the picture size.
float spatialMult(int sizeX, int sizeY) {
    const float m = 5.0f * (sqrtf((float)((sizeX + sizeY) / 2)) / 56.56854248046875f * 10.0f);
    return m < 1.0f ? 1.0f : m;
}

}  // namespace

TEST(Sha256, KnownDigests) {
    EXPECT_EQ(testsupport::sha256Hex("abc", 3),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    const std::string m = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    EXPECT_EQ(testsupport::sha256Hex(m.data(), m.size()),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

// ---------------------------------------------------------------------------
// The shipped bracket. Golden checksums record the current output; the
// properties beside them are what a wrong fusion breaks.

TEST(FusionSample, ThreeExposuresBlendAndHighlightPreservationDarkensBrightAreas) {
    const Bracket b = loadBracket();
    ASSERT_EQ(b.size(), 512u * 384 * 3);
    const size_t n = b.size() / 3;
    Params prm;
    const Fusion f = fuse(b, {0, 1, 2}, prm.p);
    ASSERT_EQ(f.result, 6);
    const Bytes &out = f.out;
    for (int k = 0; k < 3; k++) EXPECT_GT(meanAbsDiff(out, b.img[k]), 20.0) << "image " << k;

    // Where only the middle exposure is well exposed the output follows it.
    double d[3] = {0, 0, 0};
    size_t m = 0;
    for (size_t p = 0; p < n; p++) {
        const int mid = lum(b.img[1], p);
        if (mid < 80 || mid > 175 || lum(b.img[0], p) > 60 || lum(b.img[2], p) < 240) continue;
        m++;
        for (int k = 0; k < 3; k++)
            for (int s = 0; s < 3; s++) d[k] += std::abs(out[3 * p + s] - b.img[k][3 * p + s]);
    }
    ASSERT_GT(m, n / 20);
    EXPECT_LT(d[1], 0.75 * std::min(d[0], d[2]));

    // The window, blown out in the brightest frame, comes out darker.
    std::vector<bool> window(n), bright(n);
    for (size_t p = 0; p < n; p++) window[p] = lum(b.img[2], p) >= 250;
    double share = 0;
    const double brightWindow = meanLum(b.img[2], window, &share);
    ASSERT_GT(share, 0.05);
    EXPECT_LT(meanLum(out, window), brightWindow - 50.0);
    EXPECT_EQ(digest(out), "0dd6521247e11fc55b577c572a5fc8f273088faf4d03cad9e8c36db2ec5cb978");

    // Highlight preservation: the fused result combined with the darkest frame.
    Params comb(true);
    comb.p[7] = 0.0f;  // forced back on by the entry point
    const Fusion c = combine(b, out, b.img[0], comb.p);
    EXPECT_EQ(c.result, 4);
    EXPECT_EQ(comb.p[7], 1.0f);
    for (size_t p = 0; p < n; p++) bright[p] = lum(out, p) >= 200;
    EXPECT_LT(meanLum(c.out, bright, &share), meanLum(out, bright) - 8.0);
    EXPECT_GT(share, 0.01);
    EXPECT_EQ(digest(c.out), "1b54e2d0a14548814a04fef9cf328516a712a955ce3a1884f12347d7119c8cce");
}

TEST(FusionSample, DarkAndBrightExposuresBlend) {
    const Bracket b = loadBracket();
    Params prm;
    const Fusion f = fuse(b, {0, 2}, prm.p);
    ASSERT_EQ(f.result, 4);
    EXPECT_GT(meanAbsDiff(f.out, b.img[0]), 20.0);
    EXPECT_GT(meanAbsDiff(f.out, b.img[2]), 20.0);
    std::vector<bool> window(b.size() / 3);
    for (size_t p = 0; p < window.size(); p++) window[p] = lum(b.img[2], p) >= 250;
    EXPECT_LT(meanLum(f.out, window), meanLum(b.img[2], window) - 50.0);
    EXPECT_GT(meanLum(f.out, window), meanLum(b.img[0], window) + 20.0);
    EXPECT_EQ(digest(f.out), "505d8709e49665fbe8d9795371207ec5a6218f94cb2ff4c1ebfb4c899492297f");
}

// A 256x192 view filtered with the whole picture's radii.
TEST(FusionSample, SixteenBitAndSwappedSaturatedOutputsOfAView) {
    const Bracket b = loadBracket(128, 64, 256, 192);
    Params prm, sat;
    sat.p[2] = 5.0f;
    const Fusion f8 = fuse(b, {0, 1, 2}, prm.p, 2, nullptr, 8, 0, 512, 384);
    const Fusion f16 = fuse(b, {0, 1, 2}, prm.p, 2, nullptr, 16, 0, 512, 384);
    const Fusion fs = fuse(b, {0, 1, 2}, sat.p, 2, nullptr, 8, 1, 512, 384);
    ASSERT_EQ(f16.result, 6);
    // The same sums: the high byte of each 16-bit sample is the 8-bit sample.
    size_t mismatches = 0;
    for (size_t i = 0; i < b.size(); i++) {
        unsigned short v;
        std::memcpy(&v, &f16.out[2 * i], 2);
        mismatches += (v >> 8) != f8.out[i];
    }
    EXPECT_EQ(mismatches, 0u);

    double spread8 = 0, spreadS = 0, red8 = 0, blue8 = 0, redS = 0, blueS = 0;
    for (size_t i = 0; i < b.size(); i += 3) {
        const unsigned char *a = &f8.out[i], *s = &fs.out[i];
        spread8 += std::max({a[0], a[1], a[2]}) - std::min({a[0], a[1], a[2]});
        spreadS += std::max({s[0], s[1], s[2]}) - std::min({s[0], s[1], s[2]});
        red8 += a[0], blue8 += a[2], redS += s[2], blueS += s[0];
    }
    EXPECT_GT(spreadS, 1.2 * spread8);  // saturation 5 is a factor 1.5
    EXPECT_GT(red8, blue8);             // a warm scene ...
    EXPECT_GT(redS, blueS);             // ... read back in (b, g, r) order

    EXPECT_EQ(digest(f8.out), "150fefe31a4ea781c308d61a6efe75cf252dea523d6db7b959aaeec44cb8e989");
    EXPECT_EQ(digest(f16.out), "96724baff7f0427117205fbfd08f0f4f7854834d4440baf582121eed89b08437");
    EXPECT_EQ(digest(fs.out), "3e5e1e6e9f2d4389466caea1301db125538b9a15471b435b02586e68a61261ab");
}

// ---------------------------------------------------------------------------
// Protocol, on a 128x96 view.

TEST(FusionProtocol, ProgressRisesToOneOnlyOnCompletionAndResultIsTwiceKMax) {
    Params prm;
    resetProgress(-1);  // a cancel request on the final report comes too late
    const Fusion f = fuse(crop(), {0, 1, 2}, prm.p, 2, record);
    EXPECT_EQ(f.result, 6);
    EXPECT_FALSE(untouched(f.out));
    ASSERT_EQ(g_amounts.size(), 7u);  // three images, three weight planes, the end
    for (size_t i = 1; i < g_amounts.size(); i++) EXPECT_GT(g_amounts[i], g_amounts[i - 1]);
    EXPECT_EQ(g_amounts.back(), 1.0f);
    // Image filters share 0.9 * 0.66, weight filters 0.9 * 0.34; the
    // reconstruction's 0.1 shows only as the jump to 1.0.
    EXPECT_NEAR(g_amounts[0], 0.198f, 1e-5f);
    EXPECT_NEAR(g_amounts[2], 0.594f, 1e-5f);
    EXPECT_NEAR(g_amounts[5], 0.9f, 1e-5f);
}

TEST(FusionProtocol, CancellingAtEveryPointLeavesOutputUntouched) {
    const Bracket b = crop();
    // Two images: after image 0, image 1, weight plane 0, weight plane 1.
    for (int at = 1; at <= 4; at++) {
        Params prm;
        resetProgress(at);
        const Fusion f = fuse(b, {0, 2}, prm.p, 2, record);
        EXPECT_EQ(f.result, 4) << "cancelled at " << at;
        EXPECT_EQ(g_amounts.size(), (size_t)at);
        EXPECT_TRUE(untouched(f.out)) << "cancelled at " << at;
    }
    // Highlight preservation reports the bright map first.
    Params prm(true);
    resetProgress(1);
    const Fusion c = combine(b, b.img[1], b.img[0], prm.p, 2, record);
    EXPECT_EQ(c.result, 4);
    EXPECT_EQ(g_amounts, std::vector<float>{0.1f});
    EXPECT_TRUE(untouched(c.out));
}

TEST(FusionProtocol, PreserveSwitchTruncatesAndNeedsExactlyTwoImages) {
    const Bracket b = crop();
    for (float on : {1.0f, -1.0f}) {
        Params prm;
        prm.p[7] = on;
        resetProgress(0);
        const Fusion f = fuse(b, {0, 1, 2}, prm.p, 2, record);
        EXPECT_EQ(f.result, -1001) << on;
        EXPECT_TRUE(untouched(f.out));
        EXPECT_TRUE(g_amounts.empty());
    }
    // 0.9 truncates to off: no -1001, and no bright-map share in the progress.
    Params prm;
    prm.p[7] = 0.9f;
    resetProgress(1);
    const Fusion f = fuse(b, {0, 1, 2}, prm.p, 2, record);
    EXPECT_EQ(f.result, 6);
    ASSERT_EQ(g_amounts.size(), 1u);
    EXPECT_NEAR(g_amounts[0], 0.198f, 1e-5f);
}

TEST(FusionProtocol, LoupeForcesPreservationAndUsesTheWholePicturesRadii) {
    const Bracket b = crop();
    Params prm;  // preservation off: the entry turns it on
    Bytes fused = b.img[1], dark = b.img[0], out(b.size(), POISON);
    resetProgress(1);
    testing::internal::CaptureStderr();
    const int r = hx_combi_realistic_loupe(team(2), prm.p, b.w, b.h, 512, 384, b.w * 3, 0, 3, 8,
                                           8, 8, fused.data(), dark.data(), out.data(), record);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(r, 4);
    EXPECT_EQ(prm.p[7], 1.0f);
    EXPECT_EQ(g_amounts, std::vector<float>{0.1f});  // the bright map ran
    char line[128];
    std::snprintf(line, sizeof line, " mult=%f ", spatialMult(512, 384));
    EXPECT_NE(err.find(line), std::string::npos) << err;
}

TEST(FusionProtocol, SameBytesForOneTwoAndFourThreads) {
    const Bracket b = crop();
    Params prm, comb(true);
    const Fusion one = fuse(b, {0, 1, 2}, prm.p, 1);  // null callback throughout
    EXPECT_EQ(fuse(b, {0, 1, 2}, prm.p, 2).out, one.out);
    EXPECT_EQ(fuse(b, {0, 1, 2}, prm.p, 4).out, one.out);
    // Highlight mode: the bright maps choose kernels per pixel.
    const Fusion c1 = combine(b, one.out, b.img[0], comb.p, 1);
    EXPECT_EQ(combine(b, one.out, b.img[0], comb.p, 4).out, c1.out);
}

TEST(FusionProtocol, CommentaryOfACombinationIsTextForText) {
    const Bracket b = crop();
    Params prm(true);
    testing::internal::CaptureStderr();
    const Fusion c = combine(b, b.img[1], b.img[0], prm.p);
    const std::string got = testing::internal::GetCapturedStderr();
    ASSERT_EQ(c.result, 4);

    // Built from the stated formats and formulas.
    const float mult = spatialMult(b.w, b.h);
    const float gaussBlur =
        std::max(1.0f, sqrtf((float)((b.w + b.h) / 2)) / 56.56854248046875f * 9.0f);
    auto radius = [](float sigma, float m, int lev) {
        for (int i = 0; i < lev; i++) sigma *= m;
        return (float)std::sqrt(1.1512925390464424 * sigma);
    };
    char line[256];
    std::string want;
    std::snprintf(line, sizeof line,
                  "strength=%f sharpness=%f startRadius=%f mult=%f spatSigma=%f rangeSigma=%f\n",
                  15.0, 2.0, 3.0, mult, 0.2f, 0.2f);
    want += line;
    std::snprintf(line, sizeof line, "%5s %13s %13s %12s %13s\n", "Level", "Spatial Sigma",
                  "Spatial Radius", "Range Sigma", "Range Radius");
    want += line;
    for (int lev = 0; lev < 2; lev++) {
        std::snprintf(line, sizeof line, "%5d %13.2f %13.1f %12.2f %12.1f\n", lev,
                      lev ? 0.2f * mult : 0.2f, radius(0.2f, mult, lev), 0.2f,
                      radius(0.2f, 1.0f, lev));
        want += line;
    }
    // Each pyramid run: a banner, then per level the ordinary and fine kernel sizes.
    auto run = [&](const std::string &banner, float sigma, float power) {
        want += banner;
        int acc[2] = {6, 6}, fine[2] = {13, 13};
        const float s = (float)(sigma * 1.7320508075688772);
        const int window = std::min(b.w, b.h);
        for (int lev = 0; lev < 2; lev++) {
            std::snprintf(line, sizeof line, "NUMKERNELENTRIES=%d\nNUMFINEKERNELENTRIES=%d\n",
                          fastSpatialKernelNumEntries(window, s, power, lev, acc),
                          fastSpatialKernelNumEntries(window, s, power, lev, fine));
            want += line;
        }
    };
    auto banner = [](int n, const char *name) {
        return "\n\n" + std::string(n, '(') + name + std::string(n, ')') + "\n";
    };
    run(banner(33, "BRIGHT-FILTER"), 10.0f, gaussBlur);
    for (int k = 0; k < 2; k++) run(banner(34, "REAL-FILTER"), 0.2f, mult);
    for (int k = 0; k < 2; k++) run(banner(34, "POIDS-FILTER"), 0.2f, mult);
    EXPECT_EQ(got, want);
}

TEST(FusionProtocolDeathTest, UnsupportedFormatsAbort) {
    const Bracket b = loadBracket(0, 0, 16, 12);
    Bytes images = b.img[0], out(b.size() * 2, 0);
    images.insert(images.end(), b.img[1].begin(), b.img[1].end());
    Params prm;
    auto call = [&](int spp, int bpsIn, int bitDepthPoids) {
        hx_fusion2(team(1), prm.p, 2, b.w, b.h, b.w, b.h, b.w * spp, 0, spp, bpsIn, 8,
                   bitDepthPoids, nullptr, images.data(), nullptr, out.data(), nullptr);
    };
    EXPECT_DEATH(call(3, 16, 8),
                 "BilateralFilter:[0-9]+: hx_fusion2: Assertion `bpsIn == 8' failed");
    EXPECT_DEATH(call(3, 8, 16), "hx_fusion2: Assertion `bitDepthPoids == 8' failed");
    EXPECT_DEATH(call(1, 8, 8), "hx_fusion2: Assertion `bpsIn == 8 && spp == 3' failed");
}

// The shared library's C names resolve and work; internal names stay hidden.
TEST(SharedLibrary, EntryPointsCallableThroughDlsym) {
    const std::string path = LUMORA_SHARED_LIBRARY_PATH;
    void *lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto init = (decltype(&init_realistic_param))dlsym(lib, "init_realistic_param");
    auto fusion = (decltype(&hx_fusion2))dlsym(lib, "hx_fusion2");
    ASSERT_TRUE(init && fusion);
    EXPECT_NE(dlsym(lib, "hx_combi_realistic"), nullptr);
    EXPECT_NE(dlsym(lib, "hx_combi_realistic_loupe"), nullptr);
    EXPECT_EQ(dlsym(lib, "_ZN6lumora18calculatePoids8AltEiPPhiiiiiPfS2_iS2_"), nullptr);

    float p[LUMORA_FUSION_PARAM_COUNT] = {};
    init(p);
    const float defaults[LUMORA_FUSION_PARAM_COUNT] = {15, 2, 0, 3, 5, 0.2f, 0.2f, 1, 10};
    for (int i = 0; i < LUMORA_FUSION_PARAM_COUNT; i++) EXPECT_EQ(p[i], defaults[i]) << i;
    // Preservation on with three images: refused before any work.
    unsigned char img[9] = {}, out[3] = {POISON, POISON, POISON};
    EXPECT_EQ(fusion(team(1), p, 3, 1, 1, 1, 1, 3, 0, 3, 8, 8, 8, nullptr, img, nullptr, out,
                     nullptr),
              -1001);
    EXPECT_EQ(out[0], POISON);
    dlclose(lib);
}
