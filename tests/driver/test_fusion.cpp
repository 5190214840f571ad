// End-to-end fusion of the shipped bracket (darkest first): golden outputs,
// the call protocol, the commentary, the SIMD path against the plain one, and
// calls from a host's threads. Every call refills the CIELab table: tests
// share runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "core/switches.h"
#include "driver/driver.h"
#include "LumoraDevice.h"
#include "filter/level_pass_device.h"
#include "test_support.h"

using namespace lumora;
using testsupport::checksum;
using Bytes = std::vector<unsigned char>;

namespace {

const unsigned char POISON = 0x5A;

optim_param_struct team(int nbProc) {
    optim_param_struct o{};
    o.nbProc = nbProc;
    return o;
}

struct Params {  // the defaults with highlight preservation off
    float p[LUMORA_FUSION_PARAM_COUNT];
    Params() {
        init_realistic_param(p);
        p[7] = 0.0f;
    }
};

struct Bracket {
    int w = 0, h = 0;
    Bytes img[3];
    size_t size() const { return (size_t)w * h * 3; }
};

// The bracket, or a w x h view of it at (x0, y0).
Bracket loadBracket(int x0 = 0, int y0 = 0, int w = 512, int h = 384) {
    Bracket b{w, h, {}};
    for (int k = 0; k < 3; k++) b.img[k] = testsupport::sample(k, x0, y0, w, h);
    return b;
}

struct Fusion { int result = 0; Bytes out; };  // out is poisoned before the call

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

// hx_combi_realistic, or the loupe for a view of the 512x384 picture.
Fusion combine(const Bracket &b, Bytes fused, Bytes dark, float *params, int nbProc = 2,
               ProgressCallback cb = nullptr, bool loupe = false, int bpsOut = 8,
               int rgb2bgr = 0) {
    Fusion f{0, Bytes(b.size() * (bpsOut / 8), POISON)};
    f.result = loupe ? hx_combi_realistic_loupe(team(nbProc), params, b.w, b.h, 512, 384,
                                                b.w * 3, 0, 3, 8, 8, 8, fused.data(), dark.data(),
                                                f.out.data(), cb)
                     : hx_combi_realistic(team(nbProc), params, b.w, b.h, b.w * 3, rgb2bgr, 3, 8,
                                          bpsOut, 8, fused.data(), dark.data(), f.out.data(), cb);
    return f;
}

bool untouched(const Bytes &out) {
    return std::all_of(out.begin(), out.end(), [](unsigned char v) { return v == POISON; });
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

}  // namespace

// Golden checksums record the current output, byte for byte: the picture
// fused from three and from two exposures, the first result with the darkest
// frame's highlights, and a 256x192 view filtered with the whole picture's
// radii, at 8 and 16 bits and, with saturation 5, in (b, g, r) order.
TEST(FusionSample, GoldenOutputsOfTheBracketAndOfAViewWithThePictureRadii) {
    const Bracket b = loadBracket(), view = loadBracket(128, 64, 256, 192);
    Params prm, comb, sat;  // comb: preservation off, the entry point forces it on
    sat.p[2] = 5.0f;
    const Fusion f = fuse(b, {0, 1, 2}, prm.p);
    const Fusion runs[] = {f,
                           fuse(b, {0, 2}, prm.p),
                           combine(b, f.out, b.img[0], comb.p),
                           fuse(view, {0, 1, 2}, prm.p, 2, nullptr, 8, 0, 512, 384),
                           fuse(view, {0, 1, 2}, prm.p, 2, nullptr, 16, 0, 512, 384),
                           fuse(view, {0, 1, 2}, sat.p, 2, nullptr, 8, 1, 512, 384)};
    const int results[] = {6, 4, 4, 6, 6, 6};
    const uint64_t goldens[] = {0xff737f2dd9c9cbb4u, 0xa996eef2c56ff6f0u, 0x9398ee5d7308a373u,
                                0x95f339a49086566au, 0x85a06713ab53c9ccu, 0x762df16278048238u};
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(runs[i].result, results[i]) << "run " << i;
        EXPECT_EQ(checksum(runs[i].out), goldens[i]) << "run " << i;
    }
    EXPECT_EQ(comb.p[7], 1.0f);
}

TEST(FusionProtocol, SameBytesForAnyTeamSizeProgressEndsAtOneAndCommentaryIsExact) {
    const Bracket b = loadBracket(176, 96, 128, 96);
    Params prm, comb;  // comb: preservation off, the entry point forces it on
    resetProgress(-1);  // a cancel request on the final report comes too late
    const Fusion two = fuse(b, {0, 1, 2}, prm.p, 2, record);
    EXPECT_EQ(two.result, 6);
    ASSERT_EQ(g_amounts.size(), 7u);  // three images, three weight planes, the end
    // Image filters share 0.9 * 0.66, weight filters 0.9 * 0.34.
    const float amounts[] = {0.198f, 0.396f, 0.594f, 0.696f, 0.798f, 0.9f, 1.0f};
    for (int i = 0; i < 7; i++) EXPECT_NEAR(g_amounts[i], amounts[i], 1e-5f) << "report " << i;
    EXPECT_EQ(fuse(b, {0, 1, 2}, prm.p, 1).out, two.out);  // null callback
    EXPECT_EQ(fuse(b, {0, 1, 2}, prm.p, 4).out, two.out);
    testing::internal::CaptureStderr();
    const Fusion c1 = combine(b, two.out, b.img[0], comb.p, 1);
    const std::string got = testing::internal::GetCapturedStderr();
    ASSERT_EQ(c1.result, 4);
    EXPECT_EQ(comb.p[7], 1.0f);
    // Highlight mode: the bright maps choose kernels per pixel.
    EXPECT_EQ(combine(b, two.out, b.img[0], comb.p, 4).out, c1.out);

    // The commentary, text for text: parameters, level table, then per pyramid
    // run a banner and per level the ordinary and fine kernel sizes.
    std::string want =
        "strength=15.000000 sharpness=2.000000 startRadius=3.000000 mult=9.354143 "
        "spatSigma=0.200000 rangeSigma=0.200000\n"
        "Level Spatial Sigma Spatial Radius  Range Sigma  Range Radius\n"
        "    0          0.20           0.5         0.20          0.5\n"
        "    1          1.87           1.5         0.20          0.5\n";
    const std::string level = "NUMKERNELENTRIES=121\nNUMFINEKERNELENTRIES=625\n";
    auto banner = [](int n, const char *name) {
        return "\n\n" + std::string(n, '(') + name + std::string(n, ')') + "\n";
    };
    want += banner(33, "BRIGHT-FILTER") + level + level;
    for (const char *name : {"REAL-FILTER", "REAL-FILTER", "POIDS-FILTER", "POIDS-FILTER"})
        want += banner(34, name) + level + level;
    EXPECT_EQ(got, want);
}

TEST(FusionProtocol, CancelOrRefusalLeavesOutputUntouched) {
    const Bracket b = loadBracket(176, 96, 128, 96);
    Params prm;
    // Two images: after image 0, image 1, weight plane 0, weight plane 1.
    for (int at = 1; at <= 4; at++) {
        resetProgress(at);
        const Fusion f = fuse(b, {0, 2}, prm.p, 2, record);
        EXPECT_EQ(f.result, 4) << "cancelled at " << at;
        EXPECT_EQ(g_amounts.size(), (size_t)at);
        EXPECT_TRUE(untouched(f.out)) << "cancelled at " << at;
    }
    // Highlight preservation reports the bright map first; the loupe forces
    // preservation on too and filters with the whole picture's radii.
    std::string err;
    for (bool loupe : {false, true}) {
        Params comb;  // preservation off: both entry points force it on
        resetProgress(1);
        testing::internal::CaptureStderr();
        const Fusion c = combine(b, b.img[1], b.img[0], comb.p, 2, record, loupe);
        err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(c.result, 4) << "loupe " << loupe;
        EXPECT_EQ(comb.p[7], 1.0f);
        EXPECT_EQ(g_amounts, std::vector<float>{0.1f});
        EXPECT_TRUE(untouched(c.out)) << "loupe " << loupe;
    }
    // Level 1 of the whole picture: twice the view's spatial sigma (mult 18.708286).
    EXPECT_NE(err.find("\n    1          3.74           2.1         0.20          0.5\n"),
              std::string::npos) << err;
    // Preservation needs exactly two images: refused before any work; 0.9 truncates to off.
    for (float on : {1.0f, -1.0f, 0.9f}) {
        prm.p[7] = on;
        resetProgress(1);
        const Fusion f = fuse(b, {0, 1, 2}, prm.p, 2, record);
        EXPECT_EQ(f.result, on == 0.9f ? 6 : -1001) << on;
        EXPECT_EQ(g_amounts.size(), on == 0.9f ? 1u : 0u) << on;
        EXPECT_TRUE(untouched(f.out)) << on;
    }
}

TEST(FusionProtocolDeathTest, UnsupportedFormatsAbort) {
    Bytes images(2 * 16 * 12 * 3 * 2, 100), out(16 * 12 * 3 * 2, 0);
    Params prm;
    auto call = [&](int spp, int bpsIn, int bitDepthPoids) {
        hx_fusion2(team(1), prm.p, 2, 16, 12, 16, 12, 16 * spp, 0, spp, bpsIn, 8, bitDepthPoids,
                   nullptr, images.data(), nullptr, out.data(), nullptr);
    };
    EXPECT_DEATH(call(3, 16, 8),
                 "BilateralFilter:[0-9]+: hx_fusion2: Assertion `bpsIn == 8' failed");
    EXPECT_DEATH(call(3, 8, 16), "hx_fusion2: Assertion `bitDepthPoids == 8' failed");
    EXPECT_DEATH(call(1, 8, 8), "hx_fusion2: Assertion `bpsIn == 8 && spp == 3' failed");
}

namespace {

// The call on the plain reference with two threads, then on every
// instruction set with a team of 1 to 3 (from shift): the same bytes.
// Returns the reference.
Bytes expectSimdMatchesPlain(const Bracket &b, int shift, const std::function<Bytes(int)> &call) {
    testing::internal::CaptureStderr();
    usePlainPath = true;
    const Bytes want = call(2);
    usePlainPath = false;
    testsupport::forEachTarget([&](int t) {
        const int nbProc = 1 + (t + shift) % 3;
        EXPECT_EQ(testsupport::firstDifference(want, call(nbProc), b.w, 3, want.size() / b.size()),
                  "") << nbProc << " threads";
    });
    testing::internal::GetCapturedStderr();
    return want;
}

struct FusionSimd : testing::TestWithParam<int> {};

}  // namespace

// Crops of the bracket down to one pixel wide or high, every output form:
// kMax exposures (the brightest) fused, then, but for the thin crops, the
// result combined with the darkest under a preservation influence of 10, 3
// (merge threshold 151, between the two luminances) or 0 (threshold 216: the
// fused luminance alone decides).
TEST_P(FusionSimd, CropsFuseAndPreserveHighlightsAsThePlainPathDoes) {
    const struct { int x0, y0, w, h, kMax, bpsOut, bgr; float influence; int bpsOut2, bgr2; } cases[] = {
        {200, 150, 96, 72, 3, 8, 0, 10, 16, 1}, {331, 17, 61, 45, 3, 16, 1, 3, 8, 0},
        {120, 260, 37, 23, 2, 8, 1, 0, 16, 0},  {451, 40, 1, 23, 3, 16, 0, -1, 8, 0},
        {7, 301, 29, 1, 1, 8, 1, -1, 8, 0}};
    const auto &c = cases[GetParam()];
    const Bracket b = loadBracket(c.x0, c.y0, c.w, c.h);
    const std::initializer_list<int> ks[] = {{2}, {1, 2}, {0, 1, 2}};
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " kMax " << c.kMax);
    const Bytes fused = expectSimdMatchesPlain(b, GetParam(), [&](int nbProc) {
        Params prm;
        return fuse(b, ks[c.kMax - 1], prm.p, nbProc, nullptr, c.bpsOut, c.bgr).out;
    });
    if (c.influence < 0) return;
    expectSimdMatchesPlain(b, GetParam() + 1, [&](int nbProc) {
        Params prm;
        prm.p[8] = c.influence;
        return combine(b, fused, b.img[0], prm.p, nbProc, nullptr, false, c.bpsOut2, c.bgr2).out;
    });
}
INSTANTIATE_TEST_SUITE_P(Crops, FusionSimd, testing::Range(0, 5));

// A host's threads: calls made at the same time run one after the other and
// give the bytes and the commentary of the same calls made in sequence; a team
// size below 1 runs one thread.
TEST(HostThreads, ConcurrentCallsGiveSequentialBytesAndTeamsBelowOneRunOneThread) {
    // On two 40x32 crops, a first pass over three exposures and the
    // highlight-preserving pass over its result with the darkest.
    const Bracket crops[2] = {loadBracket(200, 120, 40, 32), loadBracket(20, 300, 40, 32)};
    // Call c: crop c / 2 fused, or (c odd) call c - 1's result combined.
    std::vector<Bytes> want;
    const auto run = [&](int c, int nbProc) {
        Params p;
        return c % 2 ? combine(crops[c / 2], want[c - 1], crops[c / 2].img[0], p.p, nbProc).out
                     : fuse(crops[c / 2], {0, 1, 2}, p.p, nbProc).out;
    };
    std::string commentary[2];  // of a first and of a second pass
    for (int c = 0; c < 4; c++) {
        testing::internal::CaptureStderr();
        want.push_back(run(c, 1));
        commentary[c % 2] = testing::internal::GetCapturedStderr();
    }
    ASSERT_NE(want[0], want[2]);
    ASSERT_NE(want[0], want[1]);

    // Four host threads, ten calls each, with teams of 1, 2, 0 and -2 threads.
    const int teams[4] = {1, 2, 0, -2};
    testing::internal::CaptureStderr();
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; t++)
        hosts.emplace_back([&, t] {
            for (int i = 0; i < 10; i++)
                EXPECT_EQ(run((t + i) % 4, teams[t]), want[(t + i) % 4])
                    << "team " << teams[t] << ", call " << i;
        });
    for (std::thread &host : hosts) host.join();
    std::string err = testing::internal::GetCapturedStderr();
    // Each call's commentary comes whole: 20 of each kind, never interleaved.
    int count[2] = {0, 0};
    while (!err.empty()) {
        const int kind = err.rfind(commentary[0], 0) == 0 ? 0 : err.rfind(commentary[1], 0) == 0 ? 1 : -1;
        ASSERT_NE(kind, -1) << "mixed commentary: " << err.substr(0, 200);
        err.erase(0, commentary[kind].size());
        count[kind]++;
    }
    EXPECT_EQ(count[0], 20);
    EXPECT_EQ(count[1], 20);
}

// The device extension: the CPU unless a host asks, indices past the
// devices refused, AUTO the first device that passes and is no CPU (so not
// PoCL's, in CI).
TEST(FusionDevice, ChoiceOfDevice) {
    const int before = device::selectedDevice();
    const int count = lumora_device_count();
    EXPECT_EQ(lumora_device_name(count), nullptr);
    EXPECT_EQ(lumora_use_device(count), -2);
    EXPECT_EQ(lumora_use_device(-2), -2);
    int firstNotCpu = LUMORA_DEVICE_CPU;
    for (int d = count - 1; d >= 0; d--)
        if (!device::deviceIsCpu(d)) firstNotCpu = d;
    EXPECT_EQ(lumora_use_device(LUMORA_DEVICE_AUTO), firstNotCpu);
    EXPECT_EQ(lumora_use_device(LUMORA_DEVICE_CPU), LUMORA_DEVICE_CPU);
    EXPECT_EQ(device::selectedDevice(), -1);
    device::selectDevice(before);
}

// On an OpenCL device in bands of 16 rows: the CPU's bytes (also when the
// driver draws from rand() at every launch), the host asked
// between bands with the amount so far, a cancel there ending the fusion at
// the next report with the output untouched, and an OpenCL error in the
// second level leaving the rest to the CPU with the same bytes. Skipped
// without a device.
TEST(FusionDevice, BandsGiveTheCpuBytesCancelBetweenThemAndSurviveAnError) {
    if (lumora_device_count() == 0) GTEST_SKIP() << "no OpenCL device";
    const int before = device::selectedDevice();
    const Bracket b = loadBracket(176, 96, 128, 96);  // six bands a level
    Params prm;
    ASSERT_EQ(lumora_use_device(LUMORA_DEVICE_CPU), LUMORA_DEVICE_CPU);
    const Fusion cpu = fuse(b, {0, 2}, prm.p);
    EXPECT_STREQ(lumora_last_device(), "CPU");
    ASSERT_EQ(lumora_use_device(0), 0);
    device::bandRows = 16;
    resetProgress(0);
    device::driverDraws = 3;
    const Fusion gpu = fuse(b, {0, 2}, prm.p, 2, record);
    device::driverDraws = 0;
    EXPECT_EQ(gpu.out, cpu.out);
    EXPECT_STREQ(lumora_last_device(), lumora_device_name(0));
    // Four stage reports and the final one; five repeats of 0 before the first.
    ASSERT_GT(g_amounts.size(), 10u);
    EXPECT_EQ(std::count(g_amounts.begin(), g_amounts.begin() + 5, 0.0f), 5);
    resetProgress(1);
    const Fusion cancelled = fuse(b, {0, 2}, prm.p, 2, record);
    EXPECT_EQ(cancelled.result, 4);
    EXPECT_TRUE(untouched(cancelled.out));
    EXPECT_EQ(g_amounts.size(), 2u);  // the cancel, then the report that ends the fusion
    EXPECT_EQ(g_amounts[0], 0.0f);
    device::failAtLaunch = 10;  // six bands a level: in the second
    testing::internal::CaptureStderr();
    const Fusion failing = fuse(b, {0, 2}, prm.p);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(failing.out, cpu.out);
    EXPECT_NE(err.find("lumora: OpenCL device \"" + std::string(lumora_device_name(0)) +
                       "\" failed (clEnqueueNDRangeKernel: -5): the CPU filters from here\n"),
              std::string::npos)
        << err;
    EXPECT_STREQ(lumora_last_device(), "CPU");
    device::failAtLaunch = 0;
    device::bandRows = 0;
    device::selectDevice(before);
}
