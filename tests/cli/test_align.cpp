// test_align.cpp: registration of the sample bracket moved by known
// transforms, the common area of aligned frames, and lumora-fuse's --align
// and transparent inputs as a user meets them.
#include <cmath>
#include <filesystem>

#include <opencv2/imgproc.hpp>
#include <tiffio.h>

#include "align.h"
#include "cli_support.h"

namespace fs = std::filesystem;
using namespace lumora_fuse;
using namespace lumora_cli;

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

class Align : public ToolTest {
protected:
    // image with the given opacities, as an RGBA PNG or TIFF
    void saveWithAlpha(const std::string &name, const Image &image, const std::vector<unsigned char> &alpha) const {
        std::vector<unsigned char> rgba;
        for (size_t i = 0; i < alpha.size(); ++i)
            rgba.insert(rgba.end(), {image.rgb[i * 3], image.rgb[i * 3 + 1], image.rgb[i * 3 + 2], alpha[i]});
        if (formatFromExtension(name) == FileFormat::Png)
            return writePng(at(name), image.width, image.height, PNG_FORMAT_RGBA, rgba.data());
        TIFF *tif = TIFFOpen(at(name).c_str(), "w");
        const uint16_t extra[] = {EXTRASAMPLE_UNASSALPHA};
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(image.width));
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(image.height));
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(1), extra);
        for (auto [field, value] : {std::pair<uint32_t, int>{TIFFTAG_SAMPLESPERPIXEL, 4}, {TIFFTAG_BITSPERSAMPLE, 8},
                                    {TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB}, {TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG}})
            TIFFSetField(tif, field, uint16_t(value));
        for (int y = 0; y < image.height; ++y)
            ASSERT_EQ(TIFFWriteScanline(tif, &rgba[size_t(y) * image.width * 4], uint32_t(y), 0), 1);
        TIFFClose(tif);
    }
    // The frames in the given poses: the dark, mid and bright exposures, or the mid one thrice.
    static std::vector<Image> bracket(const std::vector<Pose> &poses, bool oneExposure = false) {
        std::vector<Image> frames;
        for (int i = 0; i < 3; ++i)
            frames.push_back(render(sample(oneExposure ? 1 : i), frameToSample(poses[i]), kWidth, kHeight));
        return frames;
    }
    void saveAll(const std::vector<Image> &frames, const std::vector<std::string> &names) const {
        for (size_t i = 0; i < names.size(); ++i) save(at(names[i]), frames[i]);
    }
};

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
        Rect expected;
    };
    const std::vector<Case> cases = {
        {{still, still}, {0, 0, kWidth, kHeight}},
        {{moved(0.05, -0.05), still}, {0, 0, kWidth, kHeight}},
        {{Affine{1, -1e-5, 0.01, 1e-5, 1, -0.01}, still}, {0, 0, kWidth, kHeight}},
        {{moved(10, -4), still, moved(-3, 0)}, {3, 4, kWidth - 13, kHeight - 4}},
        {{moved(0.5, 0.5), still}, {0, 0, kWidth - 1, kHeight - 1}},
        {{moved(-0.5, -0.5), still}, {1, 1, kWidth - 1, kHeight - 1}},
        {{moved(kWidth, 0), still}, {0, 0, 0, 0}},
        {{moved(-300, 0), still, moved(200, 0)}, {0, 0, 0, 0}},
        {{turned, still}, {5, 8, 422, 288}},  // its corners lie within 0.1 pixel inside the turned frame
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Rect r = commonArea(kWidth, kHeight, cases[i].transforms);
        const Rect &e = cases[i].expected;
        EXPECT_EQ(std::vector<int>({r.x, r.y, r.width, r.height}), std::vector<int>({e.x, e.y, e.width, e.height}))
            << "case " << i;
    }
}

TEST_F(Align, AlignRegistersAMovedBracketAndSaysHowMuchItCropped) {
    const std::vector<Image> frames = bracket(kPoses[1]);
    saveAll(frames, {"d.png", "m.png", "b.png"});
    std::vector<Image> expected = frames;
    AlignSummary summary;
    std::string error;
    ASSERT_TRUE(alignFrames(expected, 1, summary, error)) << error;
    for (const Image &frame : expected)
        ASSERT_EQ(std::make_pair(frame.width, frame.height), std::make_pair(summary.crop.width, summary.crop.height));
    // Each aligned frame shows the mid frame's part of the sample: compared with
    // that part rendered directly from the frame's own exposure.
    const Rect &c = summary.crop;
    const cv::Matx33d toCrop = square(frameToSample(kPoses[1][1])) * cv::Matx33d(1, 0, c.x, 0, 1, c.y, 0, 0, 1);
    for (int i : {0, 2})
        EXPECT_LT(meanAbsDiff(render(sample(i), toCrop.get_minor<2, 3>(0, 0), c.width, c.height).rgb, expected[i].rgb),
                  4.0) << "frame " << i;

    const ToolRun aligned = run("--align @b.png @d.png @m.png -o @aligned.png");
    ASSERT_EQ(aligned.status, 0) << aligned.err;
    EXPECT_EQ(aligned.err.rfind("lumora-fuse: aligned 3 frames to " + at("m.png") + " (moved up to ", 0), 0u) << aligned.err;
    EXPECT_NE(aligned.err.find("cropped to " + std::to_string(summary.crop.width) + "x"), std::string::npos) << aligned.err;
    EXPECT_EQ(std::count(aligned.err.begin(), aligned.err.end(), '\n'), 1) << aligned.err;
    const Image out = load(at("aligned.png"));
    EXPECT_EQ(std::make_pair(out.width, out.height), std::make_pair(summary.crop.width, summary.crop.height));

    const ToolRun unaligned = run("@b.png @d.png @m.png -o @plain.png");
    ASSERT_EQ(unaligned.status, 0) << unaligned.err;
    EXPECT_EQ(unaligned.err.rfind("lumora-fuse: the exposures are up to ", 0), 0u) << unaligned.err;
    EXPECT_NE(unaligned.err.find("--align would register them\n"), std::string::npos) << unaligned.err;
    EXPECT_EQ(std::count(unaligned.err.begin(), unaligned.err.end(), '\n'), 1) << unaligned.err;
    EXPECT_EQ(run("-q @b.png @d.png @m.png -o @quiet.png").err, "") << "no suggestion under -q";
}

TEST_F(Align, TransparentEdgesAreCutAwayAndNoCommonOpaquePixelIsRefused) {
    const std::vector<Image> frames = bracket({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}});
    // Clear for 10 columns on the left in one frame; for 6 rows at the bottom
    // and from a half-transparent column at x = 420 on in another.
    std::vector<unsigned char> left(kWidth * kHeight, 255), bottom(kWidth * kHeight, 255);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            if (x < 10) left[y * kWidth + x] = 0;
            if (y >= kHeight - 6 || x >= 420) bottom[y * kWidth + x] = x == 420 ? 128 : 0;
        }
    saveWithAlpha("d.png", frames[0], left);
    saveWithAlpha("m.tif", frames[1], bottom);
    save(at("b.png"), frames[2]);
    const ToolRun r = run("@d.png @m.tif @b.png -o @f.png");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "lumora-fuse: transparent edges: cropped to 410x298 at 10,0 (7.0% of the area cut away), "
                     "the part opaque in every frame\n");
    const Image out = load(at("f.png"));
    EXPECT_EQ(std::make_pair(out.width, out.height), std::make_pair(410, 298));

    std::vector<unsigned char> right(kWidth * kHeight, 255);
    for (int i = 0; i < kWidth * kHeight; ++i) left[i] = i % kWidth < kWidth / 2 ? 0 : 255, right[i] = 255 - left[i];
    saveWithAlpha("d.png", frames[0], left);
    saveWithAlpha("b.png", frames[2], right);
    const ToolRun none = run("@d.png @m.tif @b.png -o @none.png");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "lumora-fuse: no pixel is opaque in every frame: their transparent parts leave nothing to fuse\n");
    EXPECT_FALSE(fs::exists(at("none.png")));
}

TEST_F(Align, FramesWithNothingInCommonAreRefusedInOneLine) {
    // Three corners of the sample: no frame shows what another shows.
    std::vector<Image> frames;
    for (const auto &[x, y] : {std::pair{0, 0}, {352, 264}, {0, 264}})
        frames.push_back(render(sample(1), cv::Matx23d(1, 0, x, 0, 1, y), 160, 120));
    saveAll(frames, {"a.png", "b.png", "c.png"});
    const ToolRun r = run("--align @a.png @b.png @c.png -o @f.png");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(": cannot align to "), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_FALSE(fs::exists(at("f.png")));
}

}  // namespace
