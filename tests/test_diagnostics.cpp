#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <jpeglib.h>

#include "internal.h"
#include "test_support.h"

using namespace lumora;

namespace {

// The last call of the host writer, recorded by the spy below.
struct WriterCall {
    int calls = 0;
    int quality = 0;
    std::vector<int> saveInfos;
    int rowBytes = 0;
    bool reservedZero = false;
    const unsigned char *pixels = nullptr;
    std::vector<unsigned char> picture;
} lastWrite;

struct Decoded {
    int width = 0, height = 0, components = 0, densityUnit = 0, xDensity = 0;
    std::vector<unsigned char> pixels;
};

Decoded decodeJpeg(const std::string &path) {
    Decoded out;
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) return out;
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file);
    jpeg_read_header(&cinfo, TRUE);
    jpeg_start_decompress(&cinfo);
    out = {int(cinfo.output_width), int(cinfo.output_height), cinfo.output_components,
           cinfo.density_unit, cinfo.X_density, {}};
    out.pixels.resize(size_t(out.width) * out.height * out.components);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = out.pixels.data() + size_t(cinfo.output_scanline) * out.width * out.components;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    std::fclose(file);
    return out;
}

void failIfNotPositive(int value) { BF_ASSERT(value > 0); }

}  // namespace

// Interposes the host's writer: records the call, then forwards to the real one.
// Referencing another host function keeps the host library linked (and
// thereby findable as the next HXwritejpg) even where nothing else uses it.
[[gnu::used]] static void (*const keepHostLinked)(const float *, float *) = &frgb2hsl;

extern "C" int HXwritejpg(const char *name, int quality, int *saveInfos, int rowBytes, int r1,
                          int r2, void *r3, int r4, void *r5, int r6, void *r7,
                          unsigned char *pixels) {
    using Writer = int (*)(const char *, int, int *, int, int, int, void *, int, void *, int,
                           void *, unsigned char *);
    static auto real = reinterpret_cast<Writer>(dlsym(RTLD_NEXT, "HXwritejpg"));
    if (!real) std::abort();
    ++lastWrite.calls;
    lastWrite.quality = quality;
    lastWrite.saveInfos.assign(saveInfos, saveInfos + 14);
    lastWrite.rowBytes = rowBytes;
    lastWrite.reservedZero = !r1 && !r2 && !r3 && !r4 && !r5 && !r6 && !r7;
    lastWrite.pixels = pixels;
    lastWrite.picture.assign(pixels, pixels + size_t(rowBytes) * saveInfos[1]);
    return real(name, quality, saveInfos, rowBytes, r1, r2, r3, r4, r5, r6, r7, pixels);
}

TEST(Diagnostics, SaveTestImagePassesRgbBufferAndWritesDecodableJpeg) {
    const int w = 16, h = 8;
    std::vector<unsigned char> img(w * h * 3);
    for (int n = 0; n < w * h; ++n) {  // smooth ramps survive JPEG nearly intact
        img[3 * n] = (unsigned char)(40 + 8 * (n % w));
        img[3 * n + 1] = (unsigned char)(30 + 10 * (n / w));
        img[3 * n + 2] = 128;
    }
    const std::string path = testsupport::tempPath("rgb.jpg");
    saveTestImage(path.c_str(), w, h, 3, 8, img.data());
    EXPECT_EQ(lastWrite.quality, 97);
    EXPECT_EQ(lastWrite.saveInfos, (std::vector<int>{w, h, 3, 8, 100, 100, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(lastWrite.rowBytes, w * 3);
    EXPECT_TRUE(lastWrite.reservedZero);
    EXPECT_EQ(lastWrite.pixels, img.data());  // the caller's buffer, not a copy

    const Decoded jpg = decodeJpeg(path);
    ASSERT_EQ(jpg.width, w);
    ASSERT_EQ(jpg.height, h);
    ASSERT_EQ(jpg.components, 3);
    EXPECT_EQ(jpg.densityUnit, 1);  // dots per inch
    EXPECT_EQ(jpg.xDensity, 100);
    for (size_t n = 0; n < img.size(); ++n) ASSERT_NEAR(jpg.pixels[n], img[n], 6) << n;
}

TEST(Diagnostics, SixteenBitGreyIsWrittenAsItsHighByte) {
    unsigned short img[4] = {0x1234, 0x1234, 0x1234, 0x1234};
    saveTestImage(testsupport::tempPath("grey16.jpg").c_str(), 2, 2, 1, 16,
                  reinterpret_cast<unsigned char *>(img));
    EXPECT_EQ(lastWrite.picture, std::vector<unsigned char>(12, 0x12));
}

TEST(Diagnostics, DbgSaveTestImageWritesNothingWhileSwitchIsOff) {
    ASSERT_EQ(dbgTestImage, 0);
    const int before = lastWrite.calls;
    unsigned char img[3] = {1, 2, 3};
    const std::string path = testsupport::tempPath("never.jpg");
    dbgSaveTestImage(path.c_str(), 1, 1, 3, 8, img);
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
    EXPECT_EQ(lastWrite.quality, 85);
    EXPECT_EQ(lastWrite.saveInfos[0], 8);
    EXPECT_EQ(lastWrite.saveInfos[1], 6);
    EXPECT_EQ(lastWrite.rowBytes, 24);
    auto px = [](int x, int y) { return lastWrite.picture[(y * 8 + x) * 3]; };
    EXPECT_EQ(px(0, 0), 10);  // the top-left outside corner comes first
    EXPECT_EQ(px(7, 1), 10);
    EXPECT_EQ(px(0, 5), 20);
    EXPECT_EQ(px(1, 2), 30);
    EXPECT_EQ(px(6, 3), 40);
    EXPECT_EQ(px(2, 2), 100);
    EXPECT_EQ(px(5, 3), 100 + (1 * iMax + 3) * 3);

    // One sample per pixel: each byte becomes a grey pixel.
    std::vector<unsigned char> grey(iMax * jMax, 77);
    img.image = img.inputImage = grey.data();
    testing::internal::CaptureStderr();
    saveTestImage8_1SampleWithEdges(testsupport::tempPath("grey.jpg").c_str(), iMax, jMax, &img);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::vector<unsigned char>(lastWrite.picture.begin() + 3 * (2 * 8 + 2),
                                         lastWrite.picture.begin() + 3 * (2 * 8 + 6)),
              std::vector<unsigned char>(12, 77));
}

TEST(DiagnosticsDeathTest, AssertionNamesModuleFunctionAndExpression) {
    EXPECT_DEATH(failIfNotPositive(0),
                 ": BilateralFilter:[0-9]+: failIfNotPositive: Assertion `value > 0' failed\\.");
}
