#include <gtest/gtest.h>

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

// Largest difference between a colour and its HSL round trip.
float roundTripError(const float rgb[3]) {
    float hsl[3], back[3];
    frgb2hsl(rgb, hsl);
    fhsl2rgb(hsl, back);
    float err = 0.0f;
    for (int c = 0; c < 3; ++c) err = std::max(err, std::fabs(back[c] - rgb[c]));
    return err;
}

}  // namespace

TEST(HostJpeg, WriterReportsFailureInsteadOfExiting) {
    std::vector<unsigned char> px(4 * 4 * 3, 128);
    EXPECT_EQ(writeJpeg("/nonexistent-dir/x.jpg", 4, 4, px), -1);
    // Too wide for JPEG: libjpeg raises an error after the file is created.
    const std::string path = testsupport::tempPath("too-wide.jpg");
    std::vector<unsigned char> wide(70000 * 3, 128);
    EXPECT_EQ(writeJpeg(path, 70000, 1, wide), -1);
    EXPECT_FALSE(std::filesystem::exists(path));  // the partial file is removed
    EXPECT_EQ(writeJpeg(path, 4, 4, px), 0);
    EXPECT_GT(std::filesystem::file_size(path), 0u);
}

TEST(HostHsl, RoundTripIsFaithfulForInRangeColours) {
    std::mt19937 gen(7);
    std::uniform_real_distribution<float> sample(0.0f, 255.0f);
    float worst = 0.0f;
    for (int n = 0; n < 20000; ++n) {
        const float rgb[3] = {sample(gen), sample(gen), sample(gen)};
        float hsl[3];
        frgb2hsl(rgb, hsl);
        ASSERT_GE(hsl[0], 0.0f);
        ASSERT_LT(hsl[0], 360.0f);
        ASSERT_GE(hsl[1], 0.0f);
        ASSERT_LE(hsl[1], 1.0f);
        worst = std::max(worst, roundTripError(rgb));
    }
    EXPECT_LT(worst, 1e-3f);
}

TEST(HostHsl, RoundTripHoldsForGreysAndOutOfRangeSamples) {
    const float colours[][3] = {{0, 0, 0},       {255, 255, 255}, {-20, -20, -20}, {300, 300, 300},
                                {-20, 100, 300}, {300, 300, 310}, {-5, -5, -40},   {255, 0, 256},
                                {-0.2f, 0.1f, 0}, {400, -100, 20}};
    for (const auto &rgb : colours) EXPECT_LT(roundTripError(rgb), 1e-3f) << rgb[0] << "," << rgb[1];
    float hsl[3];
    frgb2hsl(colours[3], hsl);
    EXPECT_EQ(hsl[1], 0.0f);  // a grey has no saturation
    EXPECT_EQ(hsl[2], 300.0f);
}

TEST(HostHsl, ScalingSaturationScalesDistanceFromGrey) {
    std::mt19937 gen(11);
    std::uniform_real_distribution<float> sample(-30.0f, 285.0f);
    for (int n = 0; n < 2000; ++n) {
        const float rgb[3] = {sample(gen), sample(gen), sample(gen)};
        float hsl[3];
        frgb2hsl(rgb, hsl);
        // Zero gives the grey at the lightness; negative reflects through it.
        for (float k : {0.0f, 0.5f, 1.3f, -0.4f, -1.0f}) {
            const float scaled[3] = {hsl[0], hsl[1] * k, hsl[2]};
            float out[3];
            fhsl2rgb(scaled, out);
            for (int c = 0; c < 3; ++c) {
                ASSERT_TRUE(std::isfinite(out[c]));
                ASSERT_NEAR(out[c], hsl[2] + k * (rgb[c] - hsl[2]), 2e-3f) << "k " << k;
            }
        }
    }
}
