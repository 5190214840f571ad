// test_align.cpp: registration of the sample bracket moved by known
// transforms, at a normal and at an extreme exposure spread and with a moving
// part, the common area of aligned frames, and lumora-fuse's --align and
// transparent inputs as a user meets them (frames --align cannot register
// are a row of the tool's bad-input table).
#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>

#include <opencv2/imgproc.hpp>

#include "align.h"
#include "cli_support.h"

using namespace lumora_fuse;
using namespace lumora_cli;

namespace {

constexpr Affine kIdentity{1, 0, 0, 0, 1, 0};
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

// How far m misplaces the farthest-off corner of a frame, against where the
// reference's pose and the frame's put it.
double cornerError(const Affine &m, const Pose &frame, const Pose &reference) {
    const cv::Matx33d expected = square(frameToSample(frame)).inv() * square(frameToSample(reference));
    double largest = 0;
    for (const auto &[x, y] : {std::pair{0, 0}, {kWidth - 1, 0}, {0, kHeight - 1}, {kWidth - 1, kHeight - 1}})
        largest = std::max(largest, std::hypot(m[0] * x + m[1] * y + m[2] - (expected(0, 0) * x + expected(0, 1) * y +
                                                                               expected(0, 2)),
                                               m[3] * x + m[4] * y + m[5] - (expected(1, 0) * x + expected(1, 1) * y +
                                                                               expected(1, 2))));
    return largest;
}

std::string bytesOf(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

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
        writeTiff(at(name), uint32_t(image.width), uint32_t(image.height), rgba);
    }
    // The dark, mid and bright exposures in the given poses.
    static std::vector<Image> bracket(const std::vector<Pose> &poses) {
        std::vector<Image> frames;
        for (int i = 0; i < 3; ++i) frames.push_back(render(sample(i), frameToSample(poses[i]), kWidth, kHeight));
        return frames;
    }
    // Five exposures 75 levels apart made from the mid one: the darkest has
    // 60% of the picture crushed to black, the brightest 71% clipped to white.
    static constexpr int kOffsets[5] = {-60, -25, 0, 0, 0};
    static constexpr double kGains[5] = {1, 1, 1, 4, 16};
    static std::vector<Image> wideBracket(const std::vector<Pose> &poses) {
        std::vector<Image> frames;
        for (int i = 0; i < 5; ++i) {
            frames.push_back(render(sample(1), frameToSample(poses[i]), kWidth, kHeight));
            for (unsigned char &v : frames.back().rgb)
                v = (unsigned char)std::clamp(int(v * kGains[i]) + kOffsets[i], 0, 255);
        }
        return frames;
    }
    void saveAll(const std::vector<Image> &frames, const std::vector<std::string> &names) const {
        for (size_t i = 0; i < names.size(); ++i) save(at(names[i]), frames[i]);
    }
};

// Moves of up to 5% of the width and turns of up to 2 degrees, different for every frame.
const std::vector<Pose> kPoses = {{2, -7.3, 4.1}, {-0.5, 3, -2}, {-1.5, 20.2, -15.7}};

TEST_F(Align, TheCommonAreaIsTheLargestRectangleInsideEveryMovedFrame) {
    const Affine still{1, 0, 0, 0, 1, 0};
    auto moved = [](double dx, double dy) { return Affine{1, 0, dx, 0, 1, dy}; };
    const double a = 2 * M_PI / 180, c = std::cos(a), s = std::sin(a), cx = 215.5, cy = 151.5;
    const Affine turned{c, -s, cx - c * cx + s * cy, s, c, cy - s * cx - c * cy};
    const std::vector<std::pair<std::vector<Affine>, Rect>> cases = {  // transforms, expected area
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
        const Rect r = commonArea(kWidth, kHeight, cases[i].first);
        const Rect &e = cases[i].second;
        EXPECT_EQ(std::vector<int>({r.x, r.y, r.width, r.height}), std::vector<int>({e.x, e.y, e.width, e.height}))
            << "case " << i;
    }
}

TEST_F(Align, AlignRegistersAMovedBracketAndSaysHowMuchItCropped) {
    const std::vector<Image> frames = bracket(kPoses);
    saveAll(frames, {"d.png", "m.png", "b.png"});
    std::vector<Image> expected = frames;
    AlignSummary summary;
    std::string error;
    ASSERT_TRUE(alignFrames(expected, 1, summary, error)) << error;
    // The sample's bright exposure itself lies a fraction of a pixel from the others.
    for (const auto &[i, bound] : {std::pair{0, 0.3}, {2, 0.5}}) {
        EXPECT_LT(cornerError(summary.transforms[i], kPoses[i], kPoses[1]), bound) << "frame " << i;
        EXPECT_EQ(summary.outcome[i], Registration::Kept) << "frame " << i;
    }
    for (const Image &frame : expected)
        ASSERT_EQ(std::make_pair(frame.width, frame.height), std::make_pair(summary.crop.width, summary.crop.height));
    // Each aligned frame shows the mid frame's part of the sample: compared with that part rendered directly
    // from the frame's own exposure. A registration a quarter of a pixel off takes frame 0 from 0.43 to 0.79,
    // frame 2 (whose exposure lies a fraction of a pixel from the others') from 2.55 to 4.08.
    const Rect &c = summary.crop;
    const cv::Matx33d toCrop = square(frameToSample(kPoses[1])) * cv::Matx33d(1, 0, c.x, 0, 1, c.y, 0, 0, 1);
    for (const auto &[i, bound] : {std::pair{0, 0.7}, {2, 3.3}})
        EXPECT_LT(meanAbsDiff(render(sample(i), toCrop.get_minor<2, 3>(0, 0), c.width, c.height).rgb, expected[i].rgb),
                  bound) << "frame " << i;

    // One line: each frame's move, kept, and the crop.
    const ToolRun aligned = run("--align @b.png @d.png @m.png -o @aligned.png");
    ASSERT_EQ(aligned.status, 0) << aligned.err;
    EXPECT_EQ(aligned.err.rfind("lumora-fuse: aligned 3 frames to " + at("m.png") + ": " + at("b.png") + " found ", 0),
              0u) << aligned.err;
    EXPECT_NE(aligned.err.find(" degrees, kept; " + at("d.png") + " found "), std::string::npos) << aligned.err;
    EXPECT_NE(aligned.err.find(" degrees, kept; cropped to " + std::to_string(summary.crop.width) + "x"),
              std::string::npos) << aligned.err;
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

// Five exposures, the darkest mostly crushed and the brightest mostly
// clipped, of which the tool fuses three, registered through the two
// between: moved by known transforms, they come back within half a pixel.
TEST_F(Align, AWideSpreadIsRegisteredThroughTheFramesBetween) {
    const std::vector<Pose> poses = {{1, -6, 4}, {0.5, -3, 1}, {0, 0, 0}, {-0.4, 2, 3}, {-0.8, 5, 5}};
    const std::vector<Image> frames = wideBracket(poses);
    const std::vector<std::string> names = {"e0.png", "e1.png", "e2.png", "e3.png", "e4.png"};
    saveAll(frames, names);
    std::vector<Image> fused = {frames[0], frames[2], frames[4]};
    const Neighbours neighbours{{at(names[0]), at(names[2]), at(names[4])},
                                {at(names[0]), at(names[1]), at(names[2]), at(names[3]), at(names[4])}};
    AlignSummary summary;
    std::string error;
    ASSERT_TRUE(alignFrames(fused, 1, summary, error, neighbours)) << error;
    for (int i : {0, 2}) {
        EXPECT_LT(cornerError(summary.transforms[i], poses[2 * i], poses[2]), 0.5) << "frame " << i;
        EXPECT_EQ(summary.outcome[i], Registration::Kept) << "frame " << i;
    }

    // The tool, given all five, goes through those between as well: the
    // darkest and brightest frames' moves as the line gives them (straight to
    // the normal frame, the darkest one shares too little with it).
    const ToolRun r = run("--align @e0.png @e1.png @e2.png @e3.png @e4.png -o @f.png");
    ASSERT_EQ(r.status, 0) << r.err;
    const size_t to = r.err.find("aligned 3 frames to ");
    ASSERT_NE(to, std::string::npos) << r.err;
    const int reference = r.err[r.err.find(".png:", to) - 1] - '0';
    for (int k : {0, 4}) {
        const size_t found = r.err.find(at(names[k]) + " found ");
        ASSERT_NE(found, std::string::npos) << r.err;
        const double moved = std::stod(r.err.substr(found + at(names[k]).size() + 7));
        EXPECT_NEAR(moved, cornerError(kIdentity, poses[k], poses[reference]), 0.5) << r.err;
    }
}

// Frames already in line, at a normal and at the wide spread, and frames
// with a textured fifth of the picture moving by 8 px a frame over a still
// rest: no suggestion to align (the moving part's frames are told to
// deghost), and --align keeps every frame where it is, so the output has the
// unaligned run's size and bytes.
TEST_F(Align, FramesInLineStayAsTheyAre) {
    const Pose still{0, 0, 0};
    std::vector<Image> moving = bracket({still, still, still});
    const cv::Rect window(120, 80, 194, 136);  // a fifth of the picture
    for (int i = 0; i < 3; ++i) {
        const Image part = render(sample(i), frameToSample({0, 8.0 * i - 60, 50 - 5.0 * i}), kWidth, kHeight);
        for (int y = window.y; y < window.y + window.height; ++y)
            std::copy_n(&part.rgb[(size_t(y) * kWidth + window.x) * 3], window.width * 3,
                        &moving[i].rgb[(size_t(y) * kWidth + window.x) * 3]);
    }
    const std::vector<Image> wide = wideBracket({still, still, still, still, still});
    const std::vector<std::pair<const char *, std::vector<Image>>> cases = {
        {"normal spread", bracket({still, still, still})},
        {"wide spread", {wide[0], wide[2], wide[4]}},
        {"moving part", moving},
    };
    for (const auto &[name, frames] : cases) {
        saveAll(frames, {"d.png", "m.png", "b.png"});
        std::vector<Image> aligned = frames;
        AlignSummary summary;
        std::string error;
        ASSERT_TRUE(alignFrames(aligned, 1, summary, error)) << name << ": " << error;
        for (int i : {0, 2})
            EXPECT_LT(cornerError(summary.transforms[i], still, still), 0.3) << name << ", frame " << i;

        const ToolRun plain = run("@d.png @m.png @b.png -o @plain.png");
        EXPECT_EQ(plain.err, std::string(name) == "moving part"
                                 ? "lumora-fuse: the exposures disagree over more than exposure explains (something "
                                   "moved); --deghost would remove the ghosts\n"
                                 : "")
            << name;
        const ToolRun r = run("--align @d.png @m.png @b.png -o @aligned.png");
        ASSERT_EQ(r.status, 0) << name << ": " << r.err;
        EXPECT_NE(r.err.find("; nothing cropped\n"), std::string::npos) << name << ": " << r.err;
        EXPECT_EQ(bytesOf(at("aligned.png")), bytesOf(at("plain.png"))) << name;
    }
}

// Pictures larger than the look's first, coarse resolution: it stops there
// for frames in line, and otherwise gives --align's own figure.
TEST_F(Align, TheLookAgreesWithAlignOnLargerPictures) {
    const Pose still{0, 0, 0};
    const std::vector<Image> wide = wideBracket({still, still, still, still, still});
    const std::vector<std::pair<const char *, std::vector<Image>>> cases = {
        {"moved", bracket(kPoses)}, {"in line", {wide[0], wide[2], wide[4]}}};
    for (const auto &[name, frames] : cases) {
        std::vector<Image> large;
        for (const Image &frame : frames) {
            const cv::Mat in(frame.height, frame.width, CV_8UC3, const_cast<unsigned char *>(frame.rgb.data()));
            cv::Mat out;
            cv::resize(in, out, cv::Size(), 2.5, 2.5, cv::INTER_CUBIC);
            large.push_back(Image{out.cols, out.rows, std::vector<unsigned char>(out.data, out.data + out.total() * 3), {}});
        }
        AlignSummary summary;
        std::string error;
        std::vector<Image> aligned = large;
        ASSERT_TRUE(alignFrames(aligned, 1, summary, error)) << name << ": " << error;
        EXPECT_EQ(misalignment(large, 1), summary.largestShift) << name;
        EXPECT_EQ(summary.largestShift > 0, std::string(name) == "moved") << name;
    }
}

TEST_F(Align, TransparentEdgesAreCutAwayAcrossPngAndTiffAlpha) {
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
}

}  // namespace
