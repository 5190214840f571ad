// Host platform functions: the JPEG writer's failure reports and HSL colours.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <vector>

#include "Lumora32.h"
#include "test_support.h"

namespace {

int writeJpeg(const std::string &path, int width, int height, std::vector<unsigned char> &px) {
    int saveInfos[14] = {width, height, 3, 8, 100, 100};
    return HXwritejpg(path.c_str(), 90, saveInfos, width * 3, 0, 0, nullptr, 0, nullptr, 0,
                      nullptr, px.data());
}

}  // namespace

TEST(HostJpeg, WriterReportsFailureInsteadOfExiting) {
    std::vector<unsigned char> px(4 * 4 * 3, 128), wide(70000 * 3, 128);
    EXPECT_EQ(writeJpeg("/nonexistent-dir/x.jpg", 4, 4, px), -1);
    // Too wide for JPEG: libjpeg raises an error after the file is created.
    const std::string path = testsupport::tempPath("too-wide.jpg");
    EXPECT_EQ(writeJpeg(path, 70000, 1, wide), -1);
    EXPECT_FALSE(std::filesystem::exists(path));  // the partial file is removed
    EXPECT_EQ(writeJpeg(path, 4, 4, px), 0);
    EXPECT_GT(std::filesystem::file_size(path), 0u);
}

// Colours in and beyond [0, 255], greys among them, round trip within 1e-3;
// scaling the saturation by k moves each sample k times as far from the
// lightness (0: the grey; negative: reflected, but finite).
TEST(HostHsl, RoundTripIsFaithfulAndSaturationScalesDistanceFromGrey) {
    const float fixed[][3] = {{0, 0, 0},     {255, 255, 255}, {-20, 100, 300},  {300, 300, 310},
                              {-5, -5, -40}, {255, 0, 256},   {-0.2f, 0.1f, 0}, {400, -100, 20}};
    std::mt19937 gen(7);
    std::uniform_real_distribution<float> sample(-30.0f, 285.0f);
    for (int n = 0; n < 4000; ++n) {
        float rgb[3] = {sample(gen), sample(gen), sample(gen)}, hsl[3], back[3];
        if (n < 8) std::copy(fixed[n], fixed[n] + 3, rgb);
        const bool grey = n >= 8 && n % 4 == 0;
        if (grey) rgb[1] = rgb[2] = rgb[0];
        frgb2hsl(rgb, hsl);
        EXPECT_TRUE(!grey || hsl[1] == 0.0f) << rgb[0];
        for (float k : {1.0f, 0.0f, 0.5f, 1.3f, -0.4f, -1.0f}) {
            const float scaled[3] = {hsl[0], hsl[1] * k, hsl[2]};
            fhsl2rgb(scaled, back);
            for (int c = 0; c < 3; ++c) {
                ASSERT_TRUE(std::isfinite(back[c]));
                ASSERT_NEAR(back[c], hsl[2] + k * (rgb[c] - hsl[2]), k == 1.0f ? 1e-3f : 2e-3f)
                    << n << " k " << k;
            }
        }
    }
}
