// test_align.cpp: registration of the sample bracket moved by known
// transforms, the common area of aligned frames, and lumora-fuse's --align
// and transparent inputs as a user meets them.
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <png.h>
#include <tiffio.h>

#include "align.h"
#include "image_io.h"

namespace fs = std::filesystem;
using namespace lumora_fuse;

namespace {

constexpr int kWidth = 432, kHeight = 304;  // a frame: the 512x384 sample less a margin for the moves

// One frame's pose: turned by degrees about its centre and moved by (dx, dy)
// pixels on the sample picture.
struct Pose {
    double degrees, dx, dy;
};

// Where a frame's pixel q lies on the sample picture.
cv::Matx23d frameToSample(const Pose &pose) {
    const double a = pose.degrees * M_PI / 180, c = std::cos(a), s = std::sin(a);
    const double fx = (kWidth - 1) / 2.0, fy = (kHeight - 1) / 2.0, sx = 255.5 + pose.dx, sy = 191.5 + pose.dy;
    return {c, -s, sx - c * fx + s * fy, s, c, sy - s * fx - c * fy};
}

cv::Matx33d square(const cv::Matx23d &m) { return {m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2), 0, 0, 1}; }

cv::Matx33d affine33(const Affine &m) { return {m[0], m[1], m[2], m[3], m[4], m[5], 0, 0, 1}; }

Image render(const Image &sample, const cv::Matx23d &toSample, int width, int height) {
    Image out{width, height, std::vector<unsigned char>(size_t(width) * height * 3), {}};
    const cv::Mat in(sample.height, sample.width, CV_8UC3, const_cast<unsigned char *>(sample.rgb.data()));
    cv::Mat target(height, width, CV_8UC3, out.rgb.data());
    cv::warpAffine(in, target, toSample, target.size(), cv::INTER_LANCZOS4 | cv::WARP_INVERSE_MAP);
    return out;
}

class Align : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/lumora-align-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string at(const std::string &name) const { return dir_ + "/" + name; }

    static void SetUpTestSuite() {
        const char *names[] = {"0_dark.png", "1_mid.png", "2_bright.png"};
        for (int i = 0; i < 3; ++i) {
            std::string error;
            ASSERT_TRUE(readImage(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + names[i], sample_[i], error));
        }
    }
    // The frames in the given poses: the dark, mid and bright exposures, or the mid one thrice.
    static std::vector<Image> bracket(const std::vector<Pose> &poses, bool oneExposure = false) {
        std::vector<Image> frames;
        for (int i = 0; i < 3; ++i)
            frames.push_back(render(sample_[oneExposure ? 1 : i], frameToSample(poses[i]), kWidth, kHeight));
        return frames;
    }
    static Image sample_[3];
    std::string dir_;
};
Image Align::sample_[3];

// Moves of up to 5% of the width and turns of up to 2 degrees, different for every frame.
const std::vector<std::vector<Pose>> kPoses = {
    {{0, 25.6, 0}, {0, 0, 0}, {0, -12.3, 9.5}},
    {{2, -7.3, 4.1}, {-0.5, 3, -2}, {-1.5, 20.2, -15.7}},
    {{-2, 0, 19.2}, {1, 0.4, 0.6}, {0.7, -25.6, -3}},
    {{0.1, 0.5, -0.3}, {0, 0, 0}, {-0.05, 1.2, 0.8}},
};

// The sample bracket was itself taken by hand: its exposures lie a fraction
// of a pixel apart. Across exposures, the truth is the known move combined
// with that offset as found on the unmoved frames (so a bias common to both
// would go unseen there; within one exposure the truth is the move alone).
TEST_F(Align, RecoversKnownMovesWithinAThirdOfAPixelAtEveryCorner) {
    std::vector<Affine> unmoved;
    int failed = -1;
    ASSERT_TRUE(estimateTransforms(bracket({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}}), 1, 0, unmoved, failed));
    const cv::Matx33d place = square(frameToSample({0, 0, 0}));
    for (const bool oneExposure : {true, false})
        for (size_t c = 0; c < kPoses.size(); ++c) {
            const std::vector<Pose> &poses = kPoses[c];
            std::vector<Affine> found;
            ASSERT_TRUE(estimateTransforms(bracket(poses, oneExposure), 1, 0, found, failed))
                << "case " << c << ", frame " << failed;
            for (int i : {0, 2}) {
                const cv::Matx33d offset = oneExposure ? cv::Matx33d::eye() : affine33(unmoved[i]);
                const cv::Matx33d expected =
                    square(frameToSample(poses[i])).inv() * place * offset * place.inv() * square(frameToSample(poses[1]));
                const cv::Matx33d m = affine33(found[i]);
                double worst = 0;
                for (const auto &[x, y] : {std::pair{0, 0}, {kWidth - 1, 0}, {0, kHeight - 1}, {kWidth - 1, kHeight - 1}})
                    worst = std::max(worst, cv::norm(m * cv::Vec3d(x, y, 1) - expected * cv::Vec3d(x, y, 1)));
                EXPECT_LT(worst, 0.3) << (oneExposure ? "one exposure" : "bracket") << ", case " << c << ", frame " << i;
            }
        }
}

TEST_F(Align, TheCommonAreaIsTheLargestRectangleInsideEveryMovedFrame) {
    const Affine still{1, 0, 0, 0, 1, 0};
    auto moved = [](double dx, double dy) { return Affine{1, 0, dx, 0, 1, dy}; };
    const double a = 2 * M_PI / 180, c = std::cos(a), s = std::sin(a), cx = 215.5, cy = 151.5;
    const Affine turned{c, -s, cx - c * cx + s * cy, s, c, cy - s * cx - c * cy};
    struct Case {
        std::vector<Affine> transforms;
        Rect expected;  // width 0: only checked to lie inside every frame
    };
    const std::vector<Case> cases = {
        {{still, still}, {0, 0, kWidth, kHeight}},
        {{moved(10, -4), still, moved(-3, 0)}, {3, 4, kWidth - 13, kHeight - 4}},
        {{moved(0.5, 0.5), still}, {0, 0, kWidth - 1, kHeight - 1}},
        {{moved(-0.5, -0.5), still}, {1, 1, kWidth - 1, kHeight - 1}},
        {{moved(kWidth, 0), still}, {0, 0, 0, 0}},
        {{moved(-300, 0), still, moved(200, 0)}, {0, 0, 0, 0}},
        {{turned, still}, {0, 0, 0, 0}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Rect r = commonArea(kWidth, kHeight, cases[i].transforms);
        const Rect &e = cases[i].expected;
        if (e.width > 0 || i < 6) {
            EXPECT_EQ(std::vector<int>({r.x, r.y, r.width, r.height}), std::vector<int>({e.x, e.y, e.width, e.height}))
                << "case " << i;
            continue;
        }
        EXPECT_GT(r.area(), kWidth * kHeight * 85 / 100) << "case " << i;
        for (const Affine &m : cases[i].transforms)
            for (const auto &[x, y] : {std::pair{r.x, r.y}, {r.x + r.width - 1, r.y}, {r.x, r.y + r.height - 1},
                                       {r.x + r.width - 1, r.y + r.height - 1}}) {
                const double fx = m[0] * x + m[1] * y + m[2], fy = m[3] * x + m[4] * y + m[5];
                EXPECT_TRUE(fx > -1e-6 && fx < kWidth - 1 + 1e-6 && fy > -1e-6 && fy < kHeight - 1 + 1e-6)
                    << "case " << i << ": corner " << x << "," << y;
            }
    }
}

}  // namespace
