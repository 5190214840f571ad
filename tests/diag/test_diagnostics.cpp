// Debug images and the assertion report.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "diag/diag.h"
#include "test_support.h"

using namespace lumora;

namespace {

// The last call of the host writer, recorded by the spy below.
struct {
    int calls = 0;
    std::vector<int> saveInfos;
    std::vector<unsigned char> picture;  // rowBytes * height bytes
} lastWrite;

void failIfNotPositive(int value) { BF_ASSERT(value > 0); }

}  // namespace

// Interposes the host's writer: records the call, then forwards to the real one.
// Referencing another host function keeps the host library linked (and so
// findable as the next HXwritejpg).
[[gnu::used]] static void (*const keepHostLinked)(const float *, float *) = &frgb2hsl;

extern "C" int HXwritejpg(const char *name, int quality, int *saveInfos, int rowBytes, int r1,
                          int r2, void *r3, int r4, void *r5, int r6, void *r7,
                          unsigned char *pixels) {
    using Writer = int (*)(const char *, int, int *, int, int, int, void *, int, void *, int,
                           void *, unsigned char *);
    static auto real = reinterpret_cast<Writer>(dlsym(RTLD_NEXT, "HXwritejpg"));
    if (!real) std::abort();
    ++lastWrite.calls;
    lastWrite.saveInfos.assign(saveInfos, saveInfos + 6);
    lastWrite.picture.assign(pixels, pixels + size_t(rowBytes) * saveInfos[1]);
    return real(name, quality, saveInfos, rowBytes, r1, r2, r3, r4, r5, r6, r7, pixels);
}

TEST(Diagnostics, SaveTestImageHandsTheImageToTheWriter) {
    const int w = 16, h = 8;
    std::vector<unsigned char> img(w * h * 3);
    for (int n = 0; n < w * h * 3; ++n) img[n] = (unsigned char)(7 * n);
    const std::string path = testsupport::tempPath("rgb.jpg");
    saveTestImage(path.c_str(), w, h, 3, 8, img.data());
    EXPECT_EQ(lastWrite.saveInfos, (std::vector<int>{w, h, 3, 8, 100, 100}));
    EXPECT_EQ(lastWrite.picture, img);
    EXPECT_GT(std::filesystem::file_size(path), 0u);
}

TEST(Diagnostics, SixteenBitGreyWritesItsHighByteAndSwitchedOffDumpWritesNothing) {
    unsigned short grey[4] = {0x1234, 0x1234, 0x1234, 0x1234};
    saveTestImage(testsupport::tempPath("grey16.jpg").c_str(), 2, 2, 1, 16,
                  reinterpret_cast<unsigned char *>(grey));
    EXPECT_EQ(lastWrite.picture, std::vector<unsigned char>(12, 0x12));
    ASSERT_EQ(dbgTestImage, 0);
    const int before = lastWrite.calls;
    const std::string path = testsupport::tempPath("never.jpg");
    dbgSaveTestImage(path.c_str(), 2, 2, 1, 16, reinterpret_cast<unsigned char *>(grey));
    EXPECT_EQ(lastWrite.calls, before);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Diagnostics, BorderedDumpFramesImageAndReportsSizeWithBorderOnce) {
    const int iMax = 4, jMax = 2, bw = 2, width = iMax + 2 * bw;
    std::vector<unsigned char> image(iMax * jMax * 3), top(bw * width * 3, 10),
        bottom(bw * width * 3, 20), left(jMax * bw * 3, 30), right(jMax * bw * 3, 40);
    for (size_t n = 0; n < image.size(); ++n) image[n] = (unsigned char)(100 + n);
    ImageWithBorder img{image.data(), image.data(), bw,         0,
                        top.data(),   bottom.data(), left.data(), right.data()};
    testing::internal::CaptureStderr();
    saveTestImage8_3SamplesWithEdges(testsupport::tempPath("edges.jpg").c_str(), iMax, jMax, &img);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Old size: 4 x 2  New size: 6 x 4\n");
    EXPECT_EQ(lastWrite.saveInfos, (std::vector<int>{8, 6, 3, 8, 100, 100}));
    ASSERT_EQ(lastWrite.picture.size(), 8u * 6 * 3);
    // Pixel (x, y) and its first sample; the top-left outside corner comes first.
    const int expected[][3] = {{0, 0, 10}, {7, 1, 10}, {0, 5, 20},  {1, 2, 30},
                               {6, 3, 40}, {2, 2, 100}, {5, 3, 100 + 7 * 3}};
    for (auto [x, y, v] : expected)
        EXPECT_EQ(lastWrite.picture[(y * 8 + x) * 3], v) << x << "," << y;
    // One sample per pixel: each byte becomes a grey pixel.
    std::vector<unsigned char> grey(iMax * jMax, 77);
    img.image = img.inputImage = grey.data();
    testing::internal::CaptureStderr();
    saveTestImage8_1SampleWithEdges(testsupport::tempPath("grey.jpg").c_str(), iMax, jMax, &img);
    testing::internal::GetCapturedStderr();
    for (int c = 0; c < 3; c++) EXPECT_EQ(lastWrite.picture[(3 * 8 + 5) * 3 + c], 77);
}

TEST(DiagnosticsDeathTest, AssertionNamesModuleFunctionAndExpression) {
    EXPECT_DEATH(failIfNotPositive(0),
                 ": BilateralFilter:[0-9]+: failIfNotPositive: Assertion `value > 0' failed\\.");
}
