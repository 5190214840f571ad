// The range table. (The log and power-of-two tables are made but read only
// by modes that no entry point reaches.)
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tables/tables.h"

using namespace lumora;

TEST(RangeLut, TwentyThousandEntriesIndexedBy65536ThSquaredAndZeroSigmaNanThenZeros) {
    for (int maxVal : {255, 65535}) EXPECT_EQ(fusion2luts(maxVal), 20000);
    std::vector<float> lut(20000);
    fusion2lut(0.1f, 255, lut.data());
    EXPECT_EQ(lut[0], 1.0f);
    EXPECT_NEAR(lut[655], std::exp(-655 / 655.36), 1e-7);
    // The exponent is formed in float and exponentiated in double.
    EXPECT_EQ(lut[1234], (float)std::exp((double)(-(float)(1234 / 65536.0) / (0.1f * 0.1f))));
    fusion2lut(0.0f, 65535, lut.data());
    EXPECT_TRUE(std::isnan(lut[0]));
    for (int i = 1; i < 20000; i++) ASSERT_EQ(lut[i], 0.0f) << i;
}

