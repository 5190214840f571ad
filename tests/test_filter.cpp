// Per-pixel filter: the colour-distance bilateral kernel, the sparse
// convolutions and the parallel level pass with its bright-map kernel choice.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "internal.h"
#include "test_support.h"

using namespace lumora;

namespace {

using Bytes = std::vector<unsigned char>;

// A table whose entries are all different: (i + 1) / 32768, exact in float.
// One extra entry past the end catches a read of index 20000.
std::vector<float> distinctLut() {
    std::vector<float> lut(EXP_LUT_ENTRIES + 1);
    for (int i = 0; i < EXP_LUT_ENTRIES; i++) lut[i] = (float)(i + 1) / 32768.0f;
    lut[EXP_LUT_ENTRIES] = 1000.0f;
    return lut;
}

// A row of three pixels in a hand-made built-in border of width 1, and a
// kernel of three entries that reads exactly those pixels for (posX, posY) =
// (1, 0); the middle entry is the centre.
struct ThreePixels {
    int spp;
    Bytes buffer;  // 5 x 3 pixels, image row 0 in buffer row 1
    ImageWithBorder img;
    std::vector<KernelEntry> spatial;

    ThreePixels(int sppIn, const std::vector<std::vector<int>> &pixels, std::vector<float> factors)
        : spp(sppIn), buffer(5 * 3 * sppIn, 0) {
        for (int x = 0; x < 3; x++)
            for (int s = 0; s < spp; s++)
                buffer[(5 + 1 + x) * spp + s] = (unsigned char)pixels[x][s];
        img.image = buffer.data();
        img.borderWidth = 1;
        img.mainImageHasBorders = 1;
        for (int x = 0; x < 3; x++) spatial.push_back({x, 1, factors[x], -1.0f, -2.0f, -3.0f});
    }
    std::vector<KernelEntry> run(float *expLut) {
        std::vector<KernelEntry> kernel(3);
        fusion2f(3, 1, spp, 8, 5 * spp, &img, expLut, nullptr, nullptr, 1, 0, 3, 0.2f, 3,
                 spatial.data(), kernel.data());
        return kernel;
    }
};

class Fusion2fRgb : public testing::Test {
  protected:
    static void SetUpTestSuite() { CIELab_Init(2); }
};

TEST_F(Fusion2fRgb, RangeWeightComesFromLabDistanceClampedToLastEntry) {
    std::vector<float> lut = distinctLut();

    // Flat area: every entry gets spatial weight times expLut[0]; the sum
    // (0.45 * 0.5) is below 1, so the weights stay unnormalised.
    lut[0] = 0.5f;
    ThreePixels flat(3, {{90, 140, 30}, {90, 140, 30}, {90, 140, 30}}, {0.2f, 0.3f, 0.4f});
    std::vector<KernelEntry> k = flat.run(lut.data());
    for (int e = 0; e < 3; e++) {
        EXPECT_EQ(k[e].factor, flat.spatial[e].factor * 0.5f) << e;
        EXPECT_EQ(k[e].L, labLUT[90][140][30].l);
        EXPECT_EQ(k[e].B, labLUT[90][140][30].b);
        EXPECT_EQ(k[e].xpos, e);
        EXPECT_EQ(k[e].ypos, 1);
    }

    // The same with a sum of 2.7: divided by the single-precision sum.
    lut[0] = 1.0f;
    ThreePixels heavy(3, {{90, 140, 30}, {90, 140, 30}, {90, 140, 30}}, {0.8f, 0.9f, 1.0f});
    k = heavy.run(lut.data());
    const float sum = 0.8f + 0.9f + 1.0f;
    for (int e = 0; e < 3; e++) EXPECT_EQ(k[e].factor, heavy.spatial[e].factor / sum) << e;

    // Green beside red is far beyond a squared distance of 20000: entry 19999.
    lut = distinctLut();
    ThreePixels edge(3, {{0, 255, 0}, {255, 0, 0}, {0, 255, 0}}, {0.1f, 0.1f, 0.1f});
    k = edge.run(lut.data());
    EXPECT_EQ(k[0].factor, 0.1f * lut[19999]);
    EXPECT_EQ(k[1].factor, 0.1f * lut[0]);
    EXPECT_EQ(k[2].factor, 0.1f * lut[19999]);
}

TEST(Fusion2f, OneSampleBrightnessCarriesSpatialWeightOffsetAndSmallSumStays) {
    // Brightness = spatial weight + sample: 10.95, 13.0 and 20.5, so the
    // indices are 2 and 7 (not 3 and 7), truncated. Sum below 1: unnormalised.
    std::vector<float> lut = distinctLut();
    ThreePixels grey(1, {{10}, {13}, {20}}, {0.95f, 0.0f, 0.5f});
    std::vector<KernelEntry> k = grey.run(lut.data());
    EXPECT_EQ(k[0].factor, 0.95f * lut[2]);
    EXPECT_EQ(k[1].factor, 0.0f);
    EXPECT_EQ(k[2].factor, 0.5f * lut[7]);
    EXPECT_EQ(k[0].L, -1.0f);  // copied through for non-RGB images

    // A sum of 0.99 truncates to 0: still unnormalised.
    std::fill(lut.begin(), lut.end(), 1.0f);
    ThreePixels flat(1, {{50}, {50}, {50}}, {0.33f, 0.33f, 0.33f});
    k = flat.run(lut.data());
    for (int e = 0; e < 3; e++) EXPECT_EQ(k[e].factor, 0.33f);
}

TEST(Fusion2fDeathTest, RejectsMissingCentreAndNarrowBorder) {
    Bytes buffer(64, 0);
    ImageWithBorder img;
    img.image = buffer.data();
    img.borderWidth = 1;
    img.mainImageHasBorders = 1;
    float lut[4] = {1, 1, 1, 1};
    EXPECT_DEATH(fusion2f(2, 2, 1, 8, 4, &img, lut, nullptr, nullptr, 0, 0, 3, 0.2f, 0, nullptr,
                          nullptr),
                 "fusion2f: Assertion `centreEntry != \\(\\(void \\*\\)0\\)' failed");
    KernelEntry one[1] = {{0, 0, 1.0f, 0, 0, 0}}, out[1];
    EXPECT_DEATH(fusion2f(2, 2, 1, 8, 4, &img, lut, nullptr, nullptr, 0, 0, 5, 0.2f, 1, one, out),
                 "fusion2f: Assertion `halfKernelSize <= img->borderWidth' failed");
}

// ---------------------------------------------------------------------------
// Convolutions

TEST(Convolution, AddressesEntriesAndStoresTruncatedLowBits) {
    // One entry of weight 1 copies the pixel it addresses, in every channel.
    const Bytes rgb = testsupport::randomImage(5, 4, 3, 23);
    unsigned char pixel[3];
    KernelEntry at{3, 2, 1.0f, 0, 0, 0};
    convolveFastSimple8(const_cast<unsigned char *>(rgb.data()), pixel, 3, 15, nullptr, nullptr,
                        1, &at);
    for (int s = 0; s < 3; s++) EXPECT_EQ(pixel[s], rgb[2 * 15 + 3 * 3 + s]);

    unsigned char white[2] = {255, 255};
    unsigned char out;
    KernelEntry over[2] = {{0, 0, 0.505f, 0, 0, 0}, {1, 0, 0.505f, 0, 0, 0}};  // 257.55
    convolveFastSimple8(white, &out, 1, 2, nullptr, nullptr, 2, over);
    EXPECT_EQ(out, 1);  // 257 wraps

    const float f = 254.9999f / 255.0f;
    ASSERT_LT(255.0f * f, 255.0f);
    KernelEntry almost{0, 0, f, 0, 0, 0};
    convolveFastSimple8(white, &out, 1, 1, nullptr, nullptr, 1, &almost);
    EXPECT_EQ(out, 254);

    unsigned short white16 = 65535, out16;
    KernelEntry over16{0, 0, 1.01f, 0, 0, 0};  // 66190.35
    convolveFastSimple16(&white16, &out16, 1, 1, nullptr, nullptr, 1, &over16, 1);
    EXPECT_EQ(out16, 66190 - 65536);
}

// The edge convolution resolves every entry through the separate borders;
// its result must equal the same sum read from a built-in border copy.
template <typename Sample>
void checkEdgeConvolution(int spp) {
    const int iMax = 6, jMax = 5, b = 2, bps = 8 * (int)sizeof(Sample);
    const int rs = iMax * spp, ers = (iMax + 2 * b) * spp;
    Bytes bytes = testsupport::randomImage(iMax * (int)sizeof(Sample), jMax, spp, 29);
    ImageWithBorder built, separate;
    built.inputImage = separate.inputImage = bytes.data();
    built.borderWidth = separate.borderWidth = b;
    built.mainImageHasBorders = 1;
    ASSERT_NE(createOutsideImageBorders(iMax, jMax, spp, bps, &built), -4);
    ASSERT_NE(createOutsideImageBorders(iMax, jMax, spp, bps, &separate), -4);

    std::vector<KernelEntry> kernel;
    for (int x = 0; x < 5; x++)
        for (int y = 0; y < 5; y++) kernel.push_back({x, y, 0.01f * (1 + x + 5 * y), 0, 0, 0});
    const Sample *copy = reinterpret_cast<const Sample *>(built.image);

    for (int y = 0; y < jMax; y++)
        for (int x = 0; x < iMax; x++) {
            Sample out[3];
            convolveFastIncludingEdges(&separate, reinterpret_cast<unsigned char *>(out), iMax,
                                       jMax, spp, bps, rs, nullptr, x, y, 25, kernel.data(), 5);
            for (int s = 0; s < spp; s++) {
                float sum = 0.0f;
                for (const KernelEntry &k : kernel)
                    sum = sum + (float)copy[(y + k.ypos) * ers + (x + k.xpos) * spp + s] * k.factor;
                EXPECT_EQ(out[s], (Sample)(int)sum) << x << "," << y << " sample " << s;
            }
        }
    freeOutsideImageBorders(&built);
    freeOutsideImageBorders(&separate);
}

TEST(Convolution, EdgeVariantReadsBordersAndCornersLikeBuiltInCopy) {
    checkEdgeConvolution<unsigned char>(3);
    checkEdgeConvolution<unsigned short>(1);
}

TEST(ConvolutionDeathTest, EdgeVariantRejectsBuiltInBorder) {
    ImageWithBorder img;
    img.mainImageHasBorders = 1;
    KernelEntry k{0, 0, 1.0f, 0, 0, 0};
    unsigned char out[3];
    EXPECT_DEATH(convolveFastIncludingEdges(&img, out, 2, 2, 3, 8, 6, nullptr, 0, 0, 1, &k, 1),
                 "convolveFastIncludingEdges: Assertion `!img->mainImageHasBorders' failed");
}

// ---------------------------------------------------------------------------
// Level pass

// A one-sample image with a hand-made built-in border of width 1 whose
// samples differ between horizontal neighbours, and three observable
// outcomes per pixel: the normal kernel reads the left neighbour, the fine
// kernel the right neighbour, and an unfiltered pixel copies itself.
struct LevelSetup {
    static constexpr int iMax = 24, jMax = 3;
    Bytes bordered;
    ImageWithBorder img;
    KernelEntry normal{0, 1, 1.0f, 0, 0, 0};
    KernelEntry fine{2, 1, 1.0f, 0, 0, 0};
    std::vector<float> expLut = std::vector<float>(EXP_LUT_ENTRIES, 1.0f);
    Bytes map = Bytes(iMax * jMax, 0);
    Bytes out = Bytes(iMax * jMax, 0);
    Bytes smooth = Bytes(iMax * jMax, 0);
    LevelPassArgs args{};

    LevelSetup() : bordered((iMax + 2) * (jMax + 2)) {
        for (int by = 0; by < jMax + 2; by++)
            for (int bx = 0; bx < iMax + 2; bx++)
                bordered[by * (iMax + 2) + bx] = (unsigned char)(3 * bx + 50 * by);
        img.image = bordered.data();
        img.borderWidth = 1;
        img.mainImageHasBorders = 1;
        args.img = args.filterImg = &img;
        args.filterSpp = args.spp = 1;
        args.filterBps = args.bps = 8;
        args.byteDepth = 1;
        args.filterRowStride = args.rowStride = args.rowStrideBytes = iMax;
        args.filterExtendedRowStride = args.extendedRowStride = iMax + 2;
        args.imgOutput = out.data();
        args.smoothImg = smooth.data();
        args.spatialKernel = &normal;
        args.numKernelEntries = 1;
        args.spatialKernelFine = &fine;
        args.numFineKernelEntries = 1;
        args.expLut = expLut.data();
        args.brightImage = map.data();
        args.iMax = iMax;
        args.jMax = jMax;
        args.physicalKernelSize = args.largestPhysicalKernelSize = 3;
        args.halfKernelSize = args.largestHalfKernelSize = 1;
        args.kernelStep = 1;
        args.level = 2;
        args.rangeKernelSigma = 0.2f;
        args.imageHasBorder = 1;
    }
    unsigned char sample(int bx, int by) const { return bordered[by * (iMax + 2) + bx]; }
    unsigned char self(int i, int j) const { return sample(i + 1, j + 1); }
    unsigned char left(int i, int j) const { return sample(i, j + 1); }
    unsigned char right(int i, int j) const { return sample(i + 2, j + 1); }
    unsigned char at(int i, int j) const { return out[j * iMax + i]; }
};

TEST(LevelPass, BrightMapChoosesCopyNormalOrFineKernel) {
    // Bright value and the period of fine-kernel pixels on anti-diagonals;
    // -1 = copied, 0 = never fine, 1 = always fine.
    const std::pair<int, int> cases[] = {{0, -1},  {1, 0},   {9, 0},   {10, 20}, {39, 20},
                                         {40, 10}, {60, 6},  {80, 5},  {100, 4}, {120, 3},
                                         {140, 2}, {200, 2}, {201, 1}, {255, 1}};
    for (auto [bright, period] : cases) {
        LevelSetup t;
        std::fill(t.map.begin(), t.map.end(), (unsigned char)bright);
        levelPass(2, t.args);
        for (int j = 0; j < t.jMax; j++)
            for (int i = 0; i < t.iMax; i++) {
                const bool fine = period > 0 && (i + j) % period == 0;
                const int expected = period < 0 ? t.self(i, j)
                                     : fine     ? t.right(i, j)
                                                : t.left(i, j);
                EXPECT_EQ(t.at(i, j), expected) << "bright " << bright << " at " << i << "," << j;
            }
    }
}

// Level 1 and a missing map give the normal kernel everywhere; a gauss-only
// level convolves the spatial kernel as it is (0.5: no normalisation).
TEST(LevelPass, FirstLevelMissingMapAndGaussOnlyIgnoreMap) {
    for (int variant = 0; variant < 4; variant++) {
        LevelSetup t;
        std::fill(t.map.begin(), t.map.end(), (unsigned char)(variant == 0 ? 0 : 255));
        if (variant < 2) t.args.level = 1;
        if (variant == 2) t.args.brightImage = nullptr;
        if (variant == 3) t.args.levelGaussOnly = 1, t.normal.factor = 0.5f;
        levelPass(2, t.args);
        for (int j = 0; j < t.jMax; j++)
            for (int i = 0; i < t.iMax; i++)
                EXPECT_EQ(t.at(i, j), variant == 3 ? t.left(i, j) / 2 : t.left(i, j)) << variant;
    }
}

TEST(LevelPass, SameResultForAnyTeamSizeAndSmoothedAfterAllRows) {
    LevelSetup ref;
    ref.map = testsupport::randomImage(ref.iMax, ref.jMax, 1, 31);
    ref.args.brightImage = ref.map.data();
    levelPass(1, ref.args);
    Bytes smoothed(ref.out.size());
    smoothImage3x3(ref.out.data(), ref.iMax, ref.jMax, 1, 8, smoothed.data());
    EXPECT_EQ(ref.smooth, smoothed);

    for (int threads : {2, 3, 7}) {  // 7 threads for 3 rows
        LevelSetup t;
        t.map = ref.map;
        t.args.brightImage = t.map.data();
        levelPass(threads, t.args);
        EXPECT_EQ(t.out, ref.out) << threads;
        EXPECT_EQ(t.smooth, ref.smooth) << threads;
    }
}

}  // namespace
