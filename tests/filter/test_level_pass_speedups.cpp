// The level pass's faster forms against the plain per-pixel reference, byte
// for byte, on every instruction set compiled in: the range-table reads
// (from registers where every lane's index is small, else gathered) on all
// 20000 indices, and whole passes on the cases the faster forms treat
// apart: rows that end inside a vector, colour distances at and past the
// table's end, weight sums below 1, one-sample brightness differences of
// 256 and more, and range sigmas that give zero, subnormal and all-one
// weights.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "core/switches.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "test_support.h"

using namespace lumora;
using testsupport::Bytes;

namespace {

// Every compiled instruction set, with dispatch forced to it.
template <class F>
void forEachTarget(F f) {
    testsupport::forEachTarget([&](int) { f(); });
}

// A range table of unrelated values, a few of them zero or subnormal: an
// index off by one anywhere shows.
std::vector<float> unrelatedTable() {
    std::vector<float> t(EXP_LUT_ENTRIES);
    std::mt19937 gen(11);
    for (float &v : t) v = std::uniform_real_distribution<float>(0.0f, 1.0f)(gen);
    t[3] = 0.0f;
    t[130] = 1e-40f;
    t[256] = 0.75f;
    return t;
}

TEST(LevelPassRangeReads, GiveTheTableEntryForEveryIndex) {
    const std::vector<float> lut = unrelatedTable();
    // Every index in order (vectors wholly below 128, across 128 and 256,
    // and above), then shuffled (small and large indices in one vector),
    // then small indices with one large one per 64.
    std::vector<int32_t> idx(EXP_LUT_ENTRIES);
    for (int i = 0; i < EXP_LUT_ENTRIES; i++) idx[i] = i;
    std::vector<int32_t> shuffled = idx;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    idx.insert(idx.end(), shuffled.begin(), shuffled.end());
    for (int i = 0; i < 4096; i++) idx.push_back(i % 64 == 17 ? 128 + i % 200 : i % 128);
    for (int i = 0; i < 4096; i++) idx.push_back(i % 64 == 9 ? 256 : (i * 7) % 256);
    while (idx.size() % 64 != 0) idx.push_back(255);
    forEachTarget([&] {
        for (bool oneSample : {false, true}) {
            std::vector<float> out(idx.size(), -1.0f);
            simd::rangeLookup(lut.data(), oneSample, idx.data(), idx.size(), out.data());
            for (size_t x = 0; x < idx.size(); x++)
                ASSERT_EQ(std::memcmp(&out[x], &lut[idx[x]], sizeof(float)), 0)
                    << "index " << idx[x] << " at " << x << " one-sample " << oneSample;
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
    Picture picture;
    float lo, hi;       // TwoColours: squared distance of the two colours
    float weightScale;  // spatial weights sum to about this
    float centreWeight; // the centre entry's spatial weight (0: random)
    Table table;
    int level;          // 2 with map: the bright map steers the kernels
    bool map;
    int gaussOnly;
};

// Kernels over a (2b+1)-square window, b = 2: about half the entries, the
// centre always, weights scaled to sum to about weightScale.
std::vector<KernelEntry> kernel(std::mt19937 &gen, const Case &c, int keepPercent) {
    std::vector<KernelEntry> k;
    std::uniform_real_distribution<float> f(0.0f, 1.0f);
    const int b = 2;
    for (int x = 0; x <= 2 * b; x++)
        for (int y = 0; y <= 2 * b; y++)
            if ((int)(gen() % 100) < keepPercent || (x == b && y == b))
                k.push_back({x, y, f(gen), 0.0f, 0.0f, 0.0f});
    float sum = 0.0f;
    for (const auto &e : k) sum += e.factor;
    for (auto &e : k) e.factor = e.factor * c.weightScale / sum;
    if (c.centreWeight > 0.0f) k[k.size() / 2].factor = c.centreWeight;
    return k;
}

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

struct LevelPassSpeedups : testing::TestWithParam<Case> {
    static void SetUpTestSuite() { CIELab_Init(2); }
    void TearDown() override {
        usePlainPath = false;
        hwy::SetSupportedTargetsForTest(0);
    }
};

TEST_P(LevelPassSpeedups, FastPassGivesThePlainBytes) {
    const Case &c = GetParam();
    std::mt19937 gen(std::hash<std::string>()(c.name) & 0xFFFF);
    std::vector<KernelEntry> normal = kernel(gen, c, 50);
    std::vector<KernelEntry> fine = kernel(gen, c, 90);
    std::vector<float> expLut = unrelatedTable();
    if (c.table != Table::Unrelated)
        fusion2lut(c.table == Table::Sigma001 ? 0.01f : 10.0f, 255, expLut.data());
    Bytes in = picture(c, gen);
    Bytes map((size_t)c.iMax * c.jMax);
    for (size_t k = 0; k < map.size(); k++) {
        const unsigned char bands[] = {0, 5, 30, 50, 70, 90, 110, 130, 150, 230};
        map[k] = bands[(k / 3 + k % 7) % 10];
    }

    const int b = 2;
    ImageWithBorder img;
    img.inputImage = in.data();
    img.borderWidth = b;
    img.mainImageHasBorders = 1;
    ASSERT_NE(createOutsideImageBorders(c.iMax, c.jMax, c.spp, 8, &img), -4);
    LevelPassArgs a{};
    a.img = a.filterImg = &img;
    a.filterSpp = a.spp = c.spp;
    a.filterBps = a.bps = 8;
    a.byteDepth = 1;
    a.filterRowStride = a.rowStride = a.rowStrideBytes = c.iMax * c.spp;
    a.filterExtendedRowStride = a.extendedRowStride = (c.iMax + 2 * b) * c.spp;
    a.spatialKernel = normal.data();
    a.numKernelEntries = (int)normal.size();
    a.spatialKernelFine = fine.data();
    a.numFineKernelEntries = (int)fine.size();
    a.expLut = expLut.data();
    a.brightImage = c.map ? map.data() : nullptr;
    a.iMax = c.iMax;
    a.jMax = c.jMax;
    a.physicalKernelSize = a.largestPhysicalKernelSize = 2 * b + 1;
    a.halfKernelSize = a.largestHalfKernelSize = b;
    a.levelGaussOnly = c.gaussOnly;
    a.level = c.level;
    a.rangeKernelSigma = 0.2f;
    a.imageHasBorder = 1;

    // The level's output and its smoothed copy, joined.
    const auto run = [&](bool plain) {
        Bytes r(2 * in.size(), 0xA5);
        a.imgOutput = r.data();
        a.smoothImg = r.data() + in.size();
        usePlainPath = plain;
        levelPass(1, a);
        usePlainPath = false;
        return r;
    };
    const Bytes want = run(true);
    forEachTarget([&] {
        const Bytes got = run(false);
        const size_t k = std::mismatch(want.begin(), want.end(), got.begin()).first - want.begin();
        EXPECT_EQ(k, want.size()) << "first difference at byte " << k << " (pixel "
                                  << k / c.spp % c.iMax << ", row " << k / c.spp / c.iMax
                                  << "; rows from jMax are the smoothed copy)";
    });
    freeOutsideImageBorders(&img);
}

// Widths 1, 15, 17, 33, 47: rows that end inside a vector of every target.
const Case kCases[] = {
    {"ColourNoise", 47, 6, 3, Picture::Noise, 0, 0, 1.0f, 0, Table::Unrelated, 1, false, 0},
    {"ColourAtTableEnd", 33, 5, 3, Picture::TwoColours, 19999.0f, 20000.0f, 1.3f, 0,
     Table::Unrelated, 1, false, 0},
    {"ColourPastTableEnd", 17, 5, 3, Picture::TwoColours, 20000.0f, 30000.0f, 1.3f, 0,
     Table::Unrelated, 1, false, 0},
    {"ColourSmallDistances", 40, 4, 3, Picture::TwoColours, 30.0f, 127.0f, 1.3f, 0,
     Table::Unrelated, 1, false, 0},
    {"ColourWeightSumsBelowOne", 15, 7, 3, Picture::Noise, 0, 0, 0.9f, 0, Table::Unrelated, 1,
     false, 0},
    {"ColourSigma001", 33, 5, 3, Picture::Noise, 0, 0, 1.0f, 0, Table::Sigma001, 1, false, 0},
    {"ColourSigma10", 33, 5, 3, Picture::Noise, 0, 0, 1.0f, 0, Table::Sigma10, 1, false, 0},
    {"ColourMap", 47, 8, 3, Picture::Noise, 0, 0, 1.2f, 0, Table::Unrelated, 2, true, 0},
    {"ColourGauss", 17, 4, 3, Picture::Noise, 0, 0, 1.3f, 0, Table::Unrelated, 1, false, 1},
    {"OneSampleNoise", 47, 6, 1, Picture::Noise, 0, 0, 1.0f, 0, Table::Unrelated, 1, false, 0},
    {"OneSampleWidthOne", 1, 9, 1, Picture::Noise, 0, 0, 1.0f, 0, Table::Unrelated, 1, false, 0},
    // Black and white with a light centre entry and heavy others: brightness
    // differences of 256 (entry weight minus centre weight at least 1).
    {"OneSampleIndex256", 33, 6, 1, Picture::BlackWhite, 0, 0, 12.0f, 0.25f, Table::Unrelated,
     1, false, 0},
    {"OneSampleIndexPast256", 17, 6, 1, Picture::BlackWhite, 0, 0, 60.0f, 0.1f,
     Table::Unrelated, 1, false, 0},
    {"OneSampleWeightSumsBelowOne", 33, 5, 1, Picture::Noise, 0, 0, 0.8f, 0, Table::Unrelated,
     1, false, 0},
    {"OneSampleSigma001", 33, 5, 1, Picture::Noise, 0, 0, 1.0f, 0, Table::Sigma001, 1, false, 0},
    {"OneSampleSigma10", 33, 5, 1, Picture::Noise, 0, 0, 1.0f, 0, Table::Sigma10, 1, false, 0},
    {"OneSampleMap", 47, 8, 1, Picture::Noise, 0, 0, 1.2f, 0, Table::Unrelated, 2, true, 0},
    {"OneSampleGauss", 15, 4, 1, Picture::Noise, 0, 0, 1.3f, 0, Table::Unrelated, 1, false, 1},
};
INSTANTIATE_TEST_SUITE_P(Cases, LevelPassSpeedups, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case> &i) { return i.param.name; });

}  // namespace
