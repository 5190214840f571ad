// Mirrored borders, built in or kept beside the image, and their reader.
#include <gtest/gtest.h>

#include <cstring>

#include "image/image.h"
#include "test_support.h"

using namespace lumora;

namespace {

// Sample s of pixel (x, y) in the built-in layout of an interleaved image.
template <typename T>
T builtIn(const ImageWithBorder &img, int iMax, int spp, int x, int y, int s) {
    const int b = img.borderWidth;
    const T *base = reinterpret_cast<const T *>(img.image);
    return base[(static_cast<size_t>(y + b) * (iMax + 2 * b) + (x + b)) * spp + s];
}

}  // namespace

TEST(BorderedImage, EightBitMirrorsWithoutRepeatingEdgeAndGreyCorners) {
    const int iMax = 5, jMax = 4, b = 2, ext = (iMax + 2 * b) * 3;
    auto input = testsupport::randomImage(iMax, jMax, 3, 2);
    auto in = [&](int x, int y, int s) { return input[(y * iMax + x) * 3 + s]; };
    ImageWithBorder img{.inputImage = input.data(), .borderWidth = b, .mainImageHasBorders = 1};
    ASSERT_EQ(createOutsideImageBorders(iMax, jMax, 3, 8, &img), jMax);
    auto at = [&](int x, int y, int s) { return builtIn<unsigned char>(img, iMax, 3, x, y, s); };
    for (int s = 0; s < 3; ++s) {
        for (int x = 0; x < iMax - 1; ++x) EXPECT_EQ(at(x, -1, s), in(x, 1, s)) << x;
        for (int x : {-2, -1}) EXPECT_EQ(at(x, -1, s), in(0, 1, 0)) << x;
        for (int x : {iMax - 1, iMax, iMax + 1}) EXPECT_EQ(at(x, -1, s), in(iMax - 1, 1, 0)) << x;
        EXPECT_EQ(at(1, jMax + 1, s), in(1, jMax - 3, s));
        for (int y = 0; y < jMax; ++y) {
            EXPECT_EQ(at(-1, y, s), in(1, y, s));
            EXPECT_EQ(at(-2, y, s), in(2, y, s));
            EXPECT_EQ(at(iMax, y, s), in(iMax - 2, y, s));  // the edge column is not repeated
            EXPECT_EQ(at(iMax + 1, y, s), in(iMax - 3, y, s));
            EXPECT_EQ(at(3, y, s), in(3, y, s));
        }
    }
    // Zeroed slack of two extended rows follows the (iMax + 2b)(jMax + 2b) pixels.
    for (int n = 0; n < 2 * ext; ++n) ASSERT_EQ(img.image[ext * (jMax + 2 * b) + n], 0) << n;
    freeOutsideImageBorders(&img);
}

TEST(BorderedImage, SixteenBitBottomAndSidesExtrapolateClamped) {
    // Columns: last two rows 900/1000 (plain), 5000/100 (below 0), 50000/60000 (above max).
    unsigned short input[3 * 3] = {7, 7, 7, 900, 5000, 50000, 1000, 100, 60000};
    ImageWithBorder img{.inputImage = reinterpret_cast<unsigned char *>(input), .borderWidth = 1,
                        .mainImageHasBorders = 1};
    ASSERT_EQ(createOutsideImageBorders(3, 3, 1, 16, &img), 3);
    auto at = [&](int x, int y) { return builtIn<unsigned short>(img, 3, 1, x, y, 0); };
    const int bottom[5] = {1100, 1100, 0, 65535, 65535};  // corners repeat the edge pixels
    for (int x = -1; x <= 3; ++x) EXPECT_EQ(at(x, 3), bottom[x + 1]) << x;
    const int top[5] = {900, 900, 5000, 50000, 50000};  // the top rows only mirror
    for (int x = -1; x <= 3; ++x) EXPECT_EQ(at(x, -1), top[x + 1]) << x;
    EXPECT_EQ(at(-1, 2), 2 * 1000 - 100);
    EXPECT_EQ(at(3, 2), 65535);
    EXPECT_EQ(at(-1, 1), 0);  // 2 * 900 - 5000 clamped
    freeOutsideImageBorders(&img);
}

TEST(BorderedImage, SeparateLayoutMatchesBuiltInThroughImageData) {
    const int iMax = 7, jMax = 5, b = 3;
    for (auto [spp, bps] : {std::pair{3, 8}, {1, 8}, {3, 16}}) {
        const int bytes = spp * bps / 8, ext = (iMax + 2 * b) * bytes;
        auto input = testsupport::randomImage(iMax, jMax, bytes, 3);
        ImageWithBorder sep{.inputImage = input.data(), .borderWidth = b};
        ImageWithBorder bin{.inputImage = input.data(), .borderWidth = b, .mainImageHasBorders = 1};
        ASSERT_EQ(createOutsideImageBorders(iMax, jMax, spp, bps, &sep), jMax);
        ASSERT_EQ(createOutsideImageBorders(iMax, jMax, spp, bps, &bin), jMax);
        for (int y = -b; y < jMax + b; ++y)
            for (int x = -b; x < iMax + b; ++x)
                ASSERT_EQ(std::memcmp(imageData(iMax, jMax, spp, bps, iMax * spp, &sep, x, y),
                                      bin.image + (y + b) * ext + (x + b) * bytes, bytes),
                          0)
                    << spp << " samples of " << bps << " bits at " << x << "," << y;
        freeOutsideImageBorders(&sep);
        freeOutsideImageBorders(&bin);
    }
    // RGBE: four planes per row, each mirrored on its own; the result counts plane rows.
    auto input = testsupport::randomImage(iMax, jMax, 4, 3);
    ImageWithBorder rgbe{.inputImage = input.data(), .borderWidth = b};
    ASSERT_EQ(createOutsideImageBorders(iMax, jMax, 1, 32, &rgbe), 4 * jMax);
    for (int p = 0; p < 4; ++p)
        EXPECT_EQ(imageData(iMax, jMax, 1, 32, 4 * iMax, &rgbe, 2, -1)[p * (iMax + 2 * b)],
                  input[4 * iMax + p * iMax + 2]);
    freeOutsideImageBorders(&rgbe);
}

TEST(BorderedImageDeathTest, ImageDataRejectsBuiltInLayout) {
    unsigned char pixel[3] = {};
    ImageWithBorder img{.inputImage = pixel, .image = pixel, .mainImageHasBorders = 1};
    EXPECT_DEATH(imageData(1, 1, 3, 8, 3, &img, 0, 0),
                 "BilateralFilter:[0-9]+: imageData: Assertion `!img->mainImageHasBorders' failed");
}
