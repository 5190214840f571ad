// Debug images handed to the host's writer, and the assertion report. (The
// dumps of a fusion's stages need a switch that no entry point sets.)
#include <gtest/gtest.h>

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

TEST(DiagnosticsDeathTest, AssertionNamesModuleFunctionAndExpression) {
    EXPECT_DEATH(failIfNotPositive(0),
                 ": BilateralFilter:[0-9]+: failIfNotPositive: Assertion `value > 0' failed\\.");
}
