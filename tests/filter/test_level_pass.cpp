// The level pass: the bright map's kernel choice, then the SIMD pass against
// the plain one, byte for byte on every instruction set compiled in: the
// range-table reads (gathered, or loaded lane by lane) on all 20000
// indices; random kernels over every band size and anti-diagonal period,
// with both reads; and the cases the faster forms treat apart: rows
// that end inside a vector, colour distances at and past the table's end,
// weight sums below 1, one-sample brightness differences of 256 and more,
// and range sigmas that give zero, subnormal and all-one weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/switches.h"
#include "filter/filter.h"
#include "filter/level_pass_device.h"
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
    LevelPassArgs a = selfGuidedLevel(img, iMax, jMax, spp, b, normal, fine, expLut, map);
    a.level = 2;
    a.rangeKernelSigma = 0.2f;
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

// A random sparse kernel over the (2b+1)-square window, column-outer and
// row-inner, the centre always in, weights in [0, 1) scaled by scale / n.
std::vector<KernelEntry> randomKernel(std::mt19937 &gen, int b, int keepPercent, float scale) {
    std::vector<KernelEntry> k;
    std::uniform_real_distribution<float> factor(0.0f, 1.0f);
    for (int x = 0; x <= 2 * b; x++)
        for (int y = 0; y <= 2 * b; y++)
            if ((int)(gen() % 100) < keepPercent || (x == b && y == b))
                k.push_back({x, y, factor(gen), 0.0f, 0.0f, 0.0f});
    for (auto &e : k) e.factor = e.factor * scale / k.size();
    return k;
}

// A range table of unrelated values, a few of them zero or subnormal: an
// index off by one anywhere (truncation, clamp, a fused multiply-add in the
// distance) shows.
std::vector<float> unrelatedTable() {
    std::vector<float> t(EXP_LUT_ENTRIES);
    std::mt19937 gen(11);
    for (float &v : t) v = std::uniform_real_distribution<float>(0.0f, 1.0f)(gen);
    t[3] = 0.0f;
    t[130] = 1e-40f;
    t[256] = 0.75f;
    return t;
}

// The level's output and its smoothed copy, joined, from the plain pass on
// one thread or the SIMD pass on nbProc.
Bytes passBytes(LevelPassArgs &a, size_t imageBytes, bool plain, int nbProc = 1) {
    Bytes r(2 * imageBytes, 0xA5);
    a.imgOutput = r.data();
    a.smoothImg = r.data() + imageBytes;
    usePlainPath = plain;
    levelPass(plain ? 1 : nbProc, a);
    usePlainPath = false;
    return r;
}

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

TEST(LevelPassRangeReads, GiveTheTableEntryForEveryIndex) {
    const std::vector<float> lut = unrelatedTable();
    // Both reads, every index in order (a lane that takes its neighbour's
    // entry shows), then shuffled (small and large indices in one vector).
    std::vector<int32_t> idx(EXP_LUT_ENTRIES);
    for (int i = 0; i < EXP_LUT_ENTRIES; i++) idx[i] = i;
    std::vector<int32_t> shuffled = idx;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    idx.insert(idx.end(), shuffled.begin(), shuffled.end());
    while (idx.size() % 64 != 0) idx.push_back(255);
    testsupport::forEachTarget([&](int) {
        for (simd::LaneReads reads : {simd::LaneReads::Gather, simd::LaneReads::Loads}) {
            std::vector<float> out(idx.size(), -1.0f);
            simd::rangeLookup(lut.data(), idx.data(), idx.size(), out.data(), reads);
            for (size_t x = 0; x < idx.size(); x++)
                ASSERT_EQ(std::memcmp(&out[x], &lut[idx[x]], sizeof(float)), 0)
                    << "index " << idx[x] << " at " << x << (int)reads;
        }
    });
}

// Two colours whose squared CIELab distance, as the filter computes it, lies
// in [lo, hi), searched over a grid of the RGB cube.
bool coloursAtDistance(float lo, float hi, unsigned char *c1, unsigned char *c2) {
    for (int r1 = 0; r1 < 256; r1 += 51)
        for (int g1 = 0; g1 < 256; g1 += 51)
            for (int b1 = 0; b1 < 256; b1 += 51) {
                const LABData &p = labLUT[r1][g1][b1];
                for (int r2 = 0; r2 < 256; r2 += 3)
                    for (int g2 = 0; g2 < 256; g2 += 3)
                        for (int b2 = 0; b2 < 256; b2 += 3) {
                            const LABData &q = labLUT[r2][g2][b2];
                            const float dL = q.l - p.l, dA = q.a - p.a, dB = q.b - p.b;
                            const float d = dL * dL + dA * dA + dB * dB;
                            if (d >= lo && d < hi) {
                                c1[0] = (unsigned char)r1, c1[1] = (unsigned char)g1;
                                c1[2] = (unsigned char)b1;
                                c2[0] = (unsigned char)r2, c2[1] = (unsigned char)g2;
                                c2[2] = (unsigned char)b2;
                                return true;
                            }
                        }
            }
    return false;
}

enum class Picture { Noise, TwoColours, BlackWhite };
enum class Table { Unrelated, Sigma001, Sigma10 };

struct Case {
    const char *name;
    int iMax, jMax, spp;
    Picture picture = Picture::Noise;
    float lo = 0, hi = 0;      // TwoColours: squared distance of the two colours
    float weightScale = 1.0f;  // spatial weights sum to this
    float centreWeight = 0;    // the centre entry's spatial weight (0: as drawn)
    Table table = Table::Unrelated;
    int level = 1;             // 2 with a map: the bright map steers the kernels
    int map = 0;               // 0 none, else the kind of testsupport::brightMap
    int gaussOnly = 0;
    int b = 2;                 // half the kernel's window
    int nbProc = 1;
};

Bytes picture(const Case &c, std::mt19937 &gen) {
    Bytes img((size_t)c.iMax * c.jMax * c.spp);
    unsigned char c1[3] = {0, 0, 0}, c2[3] = {255, 255, 255};
    if (c.picture == Picture::TwoColours) {
        EXPECT_TRUE(coloursAtDistance(c.lo, c.hi, c1, c2)) << c.lo << ".." << c.hi;
    }
    for (int y = 0; y < c.jMax; y++)
        for (int x = 0; x < c.iMax; x++) {
            const bool second = (x * 7 + y * 3 + (int)(gen() % 5)) % 4 < 2;
            for (int s = 0; s < c.spp; s++) {
                unsigned char v = (unsigned char)(gen() % 256);
                if (c.picture != Picture::Noise) v = second ? c2[s] : c1[s];
                img[((size_t)y * c.iMax + x) * c.spp + s] = v;
            }
        }
    return img;
}

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

// The case's level: its kernels, range table, picture and bright map, in a
// bordered image, and the pass's arguments over them.
struct CaseLevel {
    std::mt19937 gen;
    std::vector<KernelEntry> normal, fine;
    std::vector<float> expLut = unrelatedTable();
    Bytes in, map;
    ImageWithBorder img;
    LevelPassArgs a;

    explicit CaseLevel(const Case &c) : gen(std::hash<std::string>()(c.name) & 0xFFFF) {
        normal = randomKernel(gen, c.b, 50, 1.0f);
        fine = randomKernel(gen, c.b, 90, 1.0f);
        for (auto *k : {&normal, &fine}) {
            float sum = 0.0f;
            for (const auto &e : *k) sum += e.factor;
            for (auto &e : *k) e.factor = e.factor * c.weightScale / sum;
            if (c.centreWeight > 0.0f) (*k)[k->size() / 2].factor = c.centreWeight;
        }
        if (c.table != Table::Unrelated)
            fusion2lut(c.table == Table::Sigma001 ? 0.01f : 10.0f, 255, expLut.data());
        in = picture(c, gen);
        map = testsupport::brightMap(std::max(c.map, 1), c.iMax, c.jMax, 7);
        img = {.inputImage = in.data(), .borderWidth = c.b, .mainImageHasBorders = 1};
        EXPECT_NE(createOutsideImageBorders(c.iMax, c.jMax, c.spp, 8, &img), -4);
        a = levelArgs(img, c.iMax, c.jMax, c.spp, c.b, normal, fine, expLut.data(),
                      c.map ? map.data() : nullptr);
        a.largestHalfKernelSize = c.b - 1;  // copied pixels come from a narrower level's frame
        a.levelGaussOnly = c.gaussOnly;
        a.level = c.level;
    }
    ~CaseLevel() { freeOutsideImageBorders(&img); }
};

struct LevelPassSimd : testing::TestWithParam<Case> {
    static void SetUpTestSuite() { CIELab_Init(2); }
    void TearDown() override { simd::levelPassBandRows = 0, simd::laneReads = 0; }
};

// The plain pass on one thread, then the SIMD pass on the case's team, in
// bands of 1, 3 or 7 rows or the usual size, reading the range table by
// gathers and by scalar loads in turn: the same bytes.
TEST_P(LevelPassSimd, GivesThePlainBytes) {
    const Case &c = GetParam();
    CaseLevel l(c);
    const Bytes want = passBytes(l.a, l.in.size(), true);
    testsupport::forEachTarget([&](int) {
        simd::LevelPlan *plan = simd::planLevel(c.nbProc, l.a);
        EXPECT_NE(plan, nullptr) << "the SIMD path must cover these levels";
        simd::releaseLevelPlan(plan);
        // Band rows and reads (1 gather, 2 loads).
        for (auto [rows, reads] : {std::pair{0, 1}, {0, 2}, {1, 2}, {3, 1}, {7, 2}}) {
            simd::levelPassBandRows = rows;
            simd::laneReads = reads;
            EXPECT_EQ(testsupport::firstDifference(
                          want, passBytes(l.a, l.in.size(), false, c.nbProc), c.iMax, c.spp),
                      "")
                << "band " << rows << ", reads " << simd::laneReads
                << " (rows from jMax are the smoothed copy)";
        }
    });
}

// Widths 1, 15, 17, 33, 47 and 163: rows that end inside a vector of every
// target. The bright maps: every band of bright values (kind 2), or every
// anti-diagonal period under a kernel wide enough that a row's sparse fine
// pixels fill several blocks, beside whole vectors of fine lanes (kind 4).
const Case kCases[] = {
    {.name = "ColourNoise", .iMax = 47, .jMax = 6, .spp = 3},
    {.name = "ColourAtTableEnd", .iMax = 33, .jMax = 5, .spp = 3, .picture = Picture::TwoColours,
     .lo = 19999.0f, .hi = 20000.0f, .weightScale = 1.3f},
    {.name = "ColourPastTableEnd", .iMax = 17, .jMax = 5, .spp = 3,
     .picture = Picture::TwoColours, .lo = 20000.0f, .hi = 30000.0f, .weightScale = 1.3f},
    {.name = "ColourSmallDistances", .iMax = 40, .jMax = 4, .spp = 3,
     .picture = Picture::TwoColours, .lo = 30.0f, .hi = 127.0f, .weightScale = 1.3f},
    {.name = "ColourWeightSumsBelowOne", .iMax = 15, .jMax = 7, .spp = 3, .weightScale = 0.9f},
    {.name = "ColourSigma001", .iMax = 33, .jMax = 5, .spp = 3, .table = Table::Sigma001},
    {.name = "ColourSigma10", .iMax = 33, .jMax = 5, .spp = 3, .table = Table::Sigma10},
    {.name = "ColourMap", .iMax = 47, .jMax = 8, .spp = 3, .weightScale = 1.2f, .level = 2,
     .map = 2, .nbProc = 2},
    {.name = "ColourMapWide", .iMax = 163, .jMax = 9, .spp = 3, .weightScale = 1.5f, .level = 2,
     .map = 4, .b = 12, .nbProc = 3},
    {.name = "ColourGauss", .iMax = 17, .jMax = 4, .spp = 3, .weightScale = 1.3f, .gaussOnly = 1},
    {.name = "OneSampleNoise", .iMax = 47, .jMax = 6, .spp = 1, .nbProc = 2},
    {.name = "OneSampleWidthOne", .iMax = 1, .jMax = 9, .spp = 1},
    // Black and white with a light centre entry and heavy others: brightness
    // differences of 256 (entry weight minus centre weight at least 1).
    {.name = "OneSampleIndex256", .iMax = 33, .jMax = 6, .spp = 1, .picture = Picture::BlackWhite,
     .weightScale = 12.0f, .centreWeight = 0.25f},
    {.name = "OneSampleIndexPast256", .iMax = 17, .jMax = 6, .spp = 1,
     .picture = Picture::BlackWhite, .weightScale = 60.0f, .centreWeight = 0.1f},
    {.name = "OneSampleWeightSumsBelowOne", .iMax = 33, .jMax = 5, .spp = 1, .weightScale = 0.8f},
    {.name = "OneSampleSigma001", .iMax = 33, .jMax = 5, .spp = 1, .table = Table::Sigma001},
    {.name = "OneSampleSigma10", .iMax = 33, .jMax = 5, .spp = 1, .table = Table::Sigma10},
    {.name = "OneSampleMap", .iMax = 47, .jMax = 8, .spp = 1, .weightScale = 1.2f, .level = 2,
     .map = 2},
    {.name = "OneSampleMapWide", .iMax = 163, .jMax = 9, .spp = 1, .weightScale = 1.5f,
     .level = 2, .map = 4, .b = 12, .nbProc = 2},
    {.name = "OneSampleGauss", .iMax = 15, .jMax = 4, .spp = 1, .weightScale = 1.3f,
     .gaussOnly = 1},
};
INSTANTIATE_TEST_SUITE_P(Cases, LevelPassSimd, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case> &i) { return i.param.name; });

}  // namespace

// ---------------------------------------------------------------------------
// The OpenCL level pass, on the first device the machine has (PoCL in CI);
// skipped where there is none.

namespace {

struct LevelPassDevice : testing::TestWithParam<Case> {
    static void SetUpTestSuite() { CIELab_Init(2); }
    int before = device::selectedDevice();  // the test main's choice, restored
    void SetUp() override {
        if (device::deviceNames().empty()) GTEST_SKIP() << "no OpenCL device";
        ASSERT_TRUE(device::selectDevice(0));
    }
    void TearDown() override {
        device::bandRows = device::perturbBytes = device::failAtLaunch = device::inputLayout = 0;
        device::divideInDouble = false;
        device::selectDevice(before);
    }
};

// The plain pass on one thread, then the device in bands of 1 or 3 rows or
// the usual size, with the input going up band by band or whole, and once
// with the division through double (where the device has doubles): the
// same bytes, and the device did filter.
TEST_P(LevelPassDevice, GivesThePlainBytes) {
    const Case &c = GetParam();
    CaseLevel l(c);
    const Bytes want = passBytes(l.a, l.in.size(), true);
    struct Run {
        int layout, rows;
        bool inDouble;
    };
    for (const Run r : {Run{1, 0, false}, Run{1, 1, false}, Run{1, 3, false}, Run{2, 0, false},
                        Run{2, 3, false}, Run{0, 0, true}}) {
        device::inputLayout = r.layout;
        device::bandRows = r.rows;
        device::divideInDouble = r.inDouble;
        ASSERT_TRUE(device::selectDevice(0));  // checked again, with the switches
        EXPECT_EQ(testsupport::firstDifference(want, passBytes(l.a, l.in.size(), false, c.nbProc),
                                               c.iMax, c.spp),
                  "")
            << (r.inDouble ? "division in double"
                           : (r.layout == 2 ? "whole input, band " : "input by bands, band ") +
                                 std::to_string(r.rows));
        EXPECT_EQ(device::lastLevelDevice(), device::deviceNames()[0]);
    }
}
INSTANTIATE_TEST_SUITE_P(Cases, LevelPassDevice, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case> &i) { return i.param.name; });

// A device whose bytes differ is refused by its check with one line that
// names it, and a device that fails mid-level leaves the level, and the
// rest, to the CPU with one line: the bytes never change.
using LevelPassDeviceFallback = LevelPassDevice;
TEST_F(LevelPassDeviceFallback, RefusesADifferingDeviceAndSurvivesAFailingOne) {
    CaseLevel l(kCases[7]);  // colour under a map: copied, normal and fine pixels
    const Bytes want = passBytes(l.a, l.in.size(), true);
    const std::string name = device::deviceNames()[0];
    struct Trouble {
        const char *what;
        int perturb, failAt;
        std::string line;
    } troubles[] = {
        {"a differing device", 1, 0,
         "lumora: OpenCL device \"" + name +
             "\" refused: its level pass differs from the CPU's\n"},
        {"an error at the third launch", 0, 3,
         "lumora: OpenCL device \"" + name +
             "\" failed (clEnqueueNDRangeKernel: -5): the CPU filters from here\n"},
    };
    for (const Trouble &t : troubles) {
        ASSERT_TRUE(device::selectDevice(0));
        ASSERT_TRUE(device::selectedDevicePasses()) << t.what;
        ASSERT_TRUE(device::selectDevice(0));  // checked again on its next use
        device::perturbBytes = t.perturb;
        if (t.failAt > 0) {  // the error comes after a clean check
            ASSERT_TRUE(device::selectedDevicePasses());
        }
        device::failAtLaunch = t.failAt;
        device::bandRows = 2;
        testing::internal::CaptureStderr();
        const Bytes got = passBytes(l.a, l.in.size(), false);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), t.line) << t.what;
        EXPECT_EQ(testsupport::firstDifference(want, got, l.a.iMax, l.a.spp), "") << t.what;
        EXPECT_EQ(device::lastLevelDevice(), "CPU") << t.what;
        EXPECT_EQ(passBytes(l.a, l.in.size(), false), want) << t.what << ": the next level";
        EXPECT_EQ(device::lastLevelDevice(), "CPU") << t.what;
        device::perturbBytes = device::failAtLaunch = 0;
    }
}

}  // namespace
