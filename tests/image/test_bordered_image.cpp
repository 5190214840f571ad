// Mirrored borders built into an 8-bit copy. The 16-bit, RGBE and separate
// layouts serve modes that no entry point reaches: of those, only the reader's
// assertion is checked.
#include <gtest/gtest.h>

#include "image/image.h"
#include "test_support.h"

using namespace lumora;

TEST(BorderedImage, EightBitMirrorsWithoutRepeatingEdgeAndGreyCorners) {
    const int iMax = 5, jMax = 4, b = 2, ext = (iMax + 2 * b) * 3;
    auto input = testsupport::randomImage(iMax, jMax, 3, 2);
    auto in = [&](int x, int y, int s) { return input[(y * iMax + x) * 3 + s]; };
    ImageWithBorder img{.inputImage = input.data(), .borderWidth = b, .mainImageHasBorders = 1};
    ASSERT_EQ(createOutsideImageBorders(iMax, jMax, 3, 8, &img), jMax);
    auto at = [&](int x, int y, int s) { return img.image[(y + b) * ext + (x + b) * 3 + s]; };
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

TEST(BorderedImageDeathTest, ImageDataRejectsBuiltInLayout) {
    unsigned char pixel[3] = {};
    ImageWithBorder img{.inputImage = pixel, .image = pixel, .mainImageHasBorders = 1};
    EXPECT_DEATH(imageData(1, 1, 3, 8, 3, &img, 0, 0),
                 "BilateralFilter:[0-9]+: imageData: Assertion `!img->mainImageHasBorders' failed");
}
