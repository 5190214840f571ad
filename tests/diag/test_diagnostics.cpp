// Debug images and the assertion report.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diag/diag.h"

using namespace lumora;

namespace {

// The calls of the host writer, recorded by the stand-in below.
struct {
    int calls = 0;
    std::vector<int> saveInfos;
    std::vector<unsigned char> picture;  // rowBytes * height bytes
} lastWrite;

void failIfNotPositive(int value) { BF_ASSERT(value > 0); }

}  // namespace

// Stands in for the host's writer (the program's own definition comes first)
// and writes nothing: the writer itself is the host tests' business.
extern "C" int HXwritejpg(const char *, int, int *saveInfos, int rowBytes, int, int, void *, int,
                          void *, int, void *, unsigned char *pixels) {
    ++lastWrite.calls;
    lastWrite.saveInfos.assign(saveInfos, saveInfos + 6);
    lastWrite.picture.assign(pixels, pixels + size_t(rowBytes) * saveInfos[1]);
    return 0;
}

// RGB goes to the writer as it is, 16-bit grey as its high bytes in three
// samples; with the switch off a dump writes nothing.
TEST(Diagnostics, SaveTestImageHandsRgbAndSixteenBitGreyToTheWriterAndDumpsOnlyWhenSwitchedOn) {
    const int w = 16, h = 8;
    std::vector<unsigned char> img(w * h * 3);
    for (int n = 0; n < w * h * 3; ++n) img[n] = (unsigned char)(7 * n);
    saveTestImage("rgb.jpg", w, h, 3, 8, img.data());
    EXPECT_EQ(lastWrite.saveInfos, (std::vector<int>{w, h, 3, 8, 100, 100}));
    EXPECT_EQ(lastWrite.picture, img);
    unsigned short grey[4] = {0x1234, 0x1234, 0x1234, 0x1234};
    saveTestImage("grey16.jpg", 2, 2, 1, 16, reinterpret_cast<unsigned char *>(grey));
    EXPECT_EQ(lastWrite.picture, std::vector<unsigned char>(12, 0x12));
    ASSERT_EQ(dbgTestImage, 0);
    const int before = lastWrite.calls;
    dbgSaveTestImage("never.jpg", 2, 2, 1, 16, reinterpret_cast<unsigned char *>(grey));
    EXPECT_EQ(lastWrite.calls, before);
}

TEST(Diagnostics, BorderedDumpFramesImageAndReportsSizeWithBorderOnce) {
    const int iMax = 4, jMax = 2, bw = 2, width = iMax + 2 * bw;
    std::vector<unsigned char> image(iMax * jMax * 3), top(bw * width * 3, 10),
        bottom(bw * width * 3, 20), left(jMax * bw * 3, 30), right(jMax * bw * 3, 40);
    for (size_t n = 0; n < image.size(); ++n) image[n] = (unsigned char)(100 + n);
    ImageWithBorder img{image.data(), image.data(), bw,         0,
                        top.data(),   bottom.data(), left.data(), right.data()};
    testing::internal::CaptureStderr();
    saveTestImage8_3SamplesWithEdges("edges.jpg", iMax, jMax, &img);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Old size: 4 x 2  New size: 6 x 4\n");
    EXPECT_EQ(lastWrite.saveInfos, (std::vector<int>{8, 6, 3, 8, 100, 100}));
    ASSERT_EQ(lastWrite.picture.size(), 8u * 6 * 3);
    // Pixel (x, y) and its first sample; the top-left outside corner comes first.
    const int expected[][3] = {{0, 0, 10}, {7, 1, 10}, {0, 5, 20},  {1, 2, 30},
                               {6, 3, 40}, {2, 2, 100}, {5, 3, 100 + 7 * 3}};
    for (auto [x, y, v] : expected)
        EXPECT_EQ(lastWrite.picture[(y * 8 + x) * 3], v) << x << "," << y;
}

TEST(DiagnosticsDeathTest, AssertionNamesModuleFunctionAndExpression) {
    EXPECT_DEATH(failIfNotPositive(0),
                 ": BilateralFilter:[0-9]+: failIfNotPositive: Assertion `value > 0' failed\\.");
}
