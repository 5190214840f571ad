// Range, log and power-of-two tables.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "internal.h"

using namespace lumora;

TEST(RangeLut, SizeIgnoresBitDepth) {
    for (int maxVal : {0, 255, 1023, 65535}) EXPECT_EQ(fusion2luts(maxVal), 20000);
}

TEST(RangeLut, IndexScaledBy65536) {
    std::vector<float> lut(20000);
    fusion2lut(0.1f, 255, lut.data());
    EXPECT_EQ(lut[0], 1.0f);
    EXPECT_NEAR(lut[655], std::exp(-655 / 655.36), 1e-7);
    // The exponent is formed in float and exponentiated in double.
    EXPECT_EQ(lut[1234], (float)std::exp((double)(-(float)(1234 / 65536.0) / (0.1f * 0.1f))));
    EXPECT_GT(lut[19999], 0.0f);
}

TEST(RangeLut, ZeroSigmaGivesNanThenZeros) {
    std::vector<float> lut(20000, -1.0f);
    fusion2lut(0.0f, 65535, lut.data());
    EXPECT_TRUE(std::isnan(lut[0]));
    for (int i = 1; i < 20000; i++) ASSERT_EQ(lut[i], 0.0f);
}

TEST(LogLut, NaturalLogOfIndexPlusOne) {
    std::vector<float> lut(65536);
    makeLogLUT(lut.data());
    EXPECT_EQ(lut[0], 0.0f);
    EXPECT_EQ(lut[1], (float)std::log(2.0));
    EXPECT_EQ(lut[65535], (float)std::log(65536.0));
}

TEST(RgbeExpLut, PowersOfTwoKeepSubnormal) {
    float lut[256];
    makeRgbeExpLut(lut);
    EXPECT_EQ(lut[0], std::ldexp(1.0f, -128));
    EXPECT_TRUE(lut[0] > 0.0f && lut[0] < FLT_MIN);
    EXPECT_EQ(lut[128], 1.0f);
    EXPECT_EQ(lut[255], std::ldexp(1.0f, 127));
}
