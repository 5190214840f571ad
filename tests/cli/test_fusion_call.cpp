// test_fusion_call.cpp: the tool's parts as functions: the frame pick and the
// batch's grouping, the parameters of each look, how lumora-fuse prepares and
// calls the fusion library (regions grown, small pictures extended by
// mirroring and cropped back), and the committed fuzz corpora replayed
// through the fuzzers' own entry functions.
#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "batch.h"
#include "frames.h"
#include "fusion_call.h"
#include "fuzz_entries.h"

namespace fs = std::filesystem;
using namespace lumora_fuse;

namespace {

// Darkest first: one random scene at three exposures, or three flat greys.
std::vector<Image> bracketOf(int w, int h, unsigned seed, bool flat = false) {
    std::mt19937 random(seed);
    std::vector<Image> images(3, Image{w, h, {}});
    for (int i = 0; i < w * h * 3; ++i) {
        const int v = flat ? 120 : int(random() % 256);
        for (int k = 0; k < 3; ++k) images[k].rgb.push_back((unsigned char)std::min(255, v * (k + 1) / 2));
    }
    return images;
}

constexpr unsigned char kUntouched = 0x5A;

struct Fused {
    FusionStatus status;
    std::vector<unsigned char> bytes;  // the result, or kUntouched where nothing was written
};

Fused fuse(const std::vector<Image> &images, int threads, int depth = 8, Loupe region = {}) {
    float params[kFusionParamCount];
    init_realistic_param(params);  // highlights preserved: two library passes
    FusionJob job{{}, region, params, threads, depth, nullptr};
    for (const Image &image : images) job.exposures.push_back(&image);
    const size_t size = size_t(region.enabled ? region.width * region.height : images[0].width * images[0].height) *
                        3 * size_t(depth / 8);
    std::vector<unsigned char> out(size + 64, kUntouched);
    const FusionStatus status = fuseExposures(job, out.data());
    EXPECT_EQ(std::count(out.begin() + long(size), out.end(), kUntouched), 64) << "written past the result";
    out.resize(size);
    return {status, out};
}

TEST(FusionCall, SameBytesForOneAndTwoThreadsAndForAWholePictureLoupeAndAFlatBracketStaysFlat) {
    const Fused reference = fuse(bracketOf(32, 32, 0, true), 2);  // handed to the library as it is
    ASSERT_EQ(reference.status, FusionStatus::Done);
    for (auto [w, h, depth] : {std::tuple{1, 7, 16}, {31, 40, 8}, {20, 20, 8}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const std::vector<Image> bracket = bracketOf(w, h, unsigned(w * 100 + h));
        const Fused one = fuse(bracket, 1, depth);
        // The loupe pass gets the radii of the whole (extended) picture.
        const Fused two = fuse(bracket, 2, depth, w == 20 ? Loupe{true, 0, 0, w, h} : Loupe{});
        ASSERT_EQ(one.status, FusionStatus::Done);
        EXPECT_TRUE(one.bytes == two.bytes && two.status == FusionStatus::Done);
        // Zeros or a shifted crop would darken the edges of the result.
        for (unsigned char v : fuse(bracketOf(w, h, 0, true), 2).bytes) ASSERT_NEAR(v, reference.bytes[0], 1);
    }
}

TEST(FusionCall, ASmallPictureFusesLikeItsMirroredExtensionCroppedBack) {
    const int w = 20, h = 16, dx = 6, dy = 8;  // centred in 32 x 32
    const std::vector<Image> small = bracketOf(w, h, 5);
    std::vector<Image> extended(3, Image{32, 32, {}});
    const auto mirror = [](int c, int n) { return c < 0 ? -c : c >= n ? 2 * (n - 1) - c : c; };
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 32 * 32; ++i) {
            const unsigned char *p = &small[k].rgb[(size_t(mirror(i / 32 - dy, h)) * w + mirror(i % 32 - dx, w)) * 3];
            extended[k].rgb.insert(extended[k].rgb.end(), p, p + 3);
        }
    const Fused fused = fuse(small, 2), whole = fuse(extended, 2);
    ASSERT_EQ(fused.status, FusionStatus::Done);
    std::vector<unsigned char> crop;
    for (int y = dy; y < dy + h; ++y)
        crop.insert(crop.end(), whole.bytes.begin() + (y * 32 + dx) * 3, whole.bytes.begin() + (y * 32 + dx + w) * 3);
    EXPECT_TRUE(fused.bytes == crop);
}

TEST(ToolParts, OfManyFramesThePickTakesTheExtremesAndTheOneNearestNormalByRecordedLight) {
    // Mean levels named out of order (a to i: 30 ... 200), normal at mid-grey.
    const std::vector<double> levels = {118, 60, 200, 85, 30, 150, 100, 165, 136};
    EXPECT_EQ(pickThree(levels, 118), (std::array<size_t, 3>{4, 0, 2}));
    EXPECT_EQ(pickThree({5, 5, 5, 5}, 5), (std::array<size_t, 3>{0, 1, 3})) << "equals keep their order";
    EXPECT_EQ(pickThree({1, 9, 2, 8}, 9), (std::array<size_t, 3>{0, 3, 1})) << "normal never the brightest";

    // Light 2^k at k, one frame at ISO 400 (two stops more); without every
    // f-number the apertures are left out; else the bias; else nothing.
    std::vector<FrameInfo> frames(3);
    for (int i = 0; i < 3; ++i)
        frames[i].exposureTime = (1 << i) / 1000.0, frames[i].fNumber = 8, frames[i].iso = i == 0 ? 400 : 100;
    std::vector<double> light;
    ASSERT_TRUE(recordedLight(frames, light));
    EXPECT_EQ(light, (std::vector<double>{std::log2(0.001) - 6 + 2, std::log2(0.002) - 6, std::log2(0.004) - 6}));
    frames[1].fNumber = 0;
    ASSERT_TRUE(recordedLight(frames, light));
    EXPECT_EQ(light[2] - light[1], 1.0);
    EXPECT_EQ(light[0], std::log2(0.001) + 2);
    for (FrameInfo &f : frames) f.exposureTime = 0, f.hasBias = true, f.bias = -f.iso / 100;
    ASSERT_TRUE(recordedLight(frames, light));
    EXPECT_EQ(light, (std::vector<double>{-4, -1, -1}));
    frames[2].hasBias = false;
    EXPECT_FALSE(recordedLight(frames, light));
}

TEST(ToolParts, BracketsGroupByCaptureGapsAndRepeatedExposuresOrByCountInNameOrder) {
    // {name, capture second, exposure seconds}: a bracket whose middle frame
    // is a long exposure; one that starts where an exposure repeats; one
    // after a pause. Given out of order.
    const std::vector<std::tuple<const char *, double, double>> shots = {
        {"c", 12, 0.4}, {"a", 0, 0.1}, {"b", 1, 10}, {"d", 13, 0.1}, {"e", 14, 0.2}, {"f", 30, 0.1}};
    std::vector<FrameInfo> frames;
    for (const auto &[name, when, exposure] : shots) {
        frames.emplace_back();
        FrameInfo &f = frames.back();
        f.path = name, f.hasCaptureTime = true, f.captureTime = when, f.exposureTime = exposure;
    }
    const auto names = [](const std::vector<BracketFrames> &brackets) {
        std::string text;
        for (const BracketFrames &b : brackets) {
            for (const FrameInfo &f : b) text += f.path;
            text += " ";
        }
        return text;
    };
    std::vector<BracketFrames> brackets;
    std::string error;
    ASSERT_EQ(groupBrackets(0, frames, brackets, error), kContinue);
    EXPECT_EQ(names(brackets), "abc de f ");
    brackets.clear();
    ASSERT_EQ(groupBrackets(4, frames, brackets, error), kContinue);
    EXPECT_EQ(names(brackets), "abcd ef ");
    frames[4].hasCaptureTime = false;
    brackets.clear();
    EXPECT_EQ(groupBrackets(0, frames, brackets, error), 2);
    EXPECT_EQ(error, "e: records no capture time; give --group N to group the frames by N in name order");
}

TEST(ToolParts, ARegionGrowsToTheSmallestSideInsideThePictureOrCentredAcrossASmallOne) {
    const int s = kMinImageSide;
    struct Case {
        int pictureWidth, pictureHeight;
        Loupe region;
        bool fits;
        FusionArea area;
    };
    const Case cases[] = {
        {100, 80, {true, 40, 30, 8, 8}, true, {28, 18, s, s, 100, 80}},   // grown on both sides
        {100, 80, {true, 2, 75, 8, 5}, true, {0, 48, s, s, 100, 80}},     // held inside at the edges
        {100, 80, {true, 0, 0, 100, 80}, true, {0, 0, 100, 80, 100, 80}},  // large enough as it is
        {20, 16, {}, false, {-6, -8, s, s, s, s}},                         // centred across a small picture
        {100, 80, {true, 93, 0, 8, 8}, false, {}},                         // one column outside
        {100, 80, {true, 0, 0, 0, 8}, false, {}},                          // empty
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.region.x) + "," + std::to_string(c.region.y) + " in " +
                     std::to_string(c.pictureWidth));
        EXPECT_EQ(loupeFits(c.region, c.pictureWidth, c.pictureHeight), c.fits);
        if (!c.fits && c.region.enabled) continue;
        const FusionArea a = fusionArea(c.pictureWidth, c.pictureHeight, c.region);
        EXPECT_EQ(std::vector<int>({a.x, a.y, a.width, a.height, a.pictureWidth, a.pictureHeight}),
                  std::vector<int>({c.area.x, c.area.y, c.area.width, c.area.height, c.area.pictureWidth,
                                    c.area.pictureHeight}));
    }
}

// The tool's options for a command line of the test's, with the files every run needs.
Options parsed(const std::string &line, std::string &message) {
    std::vector<std::string> args = {"lumora-fuse", "a.png", "b.png", "c.png", "-o", "f.png"};
    for (size_t at = 0, end; at < line.size(); at = end + 1)
        args.push_back(line.substr(at, (end = std::min(line.find(' ', at), line.size())) - at));
    std::vector<const char *> argv;
    for (const std::string &arg : args) argv.push_back(arg.c_str());
    Options options;
    EXPECT_EQ(parseOptions(int(argv.size()), argv.data(), options, message), kContinue) << line << ": " << message;
    return options;
}

// The parameters each look was chosen with (bench/look_search.md), in the library's order.
// That the library look fuses like a host calling the library with its
// defaults is the install test's check (tests/install/check_install.sh).
TEST(Options, EachLookSetsItsParametersAndAnOptionBesideItOverridesThem) {
    using Params = std::vector<float>;
    float defaults[kFusionParamCount];
    init_realistic_param(defaults);
    const Params library(defaults, defaults + kFusionParamCount), natural = {37.5f, 1.5f, 1, 3, 3.2f, 1, 0.1f, 0, 10},
                 detail = {30, 2, 1, 3, 5, 0.2f, 0.1f, 0, 10};
    const auto with = [](Params p, std::initializer_list<std::pair<FusionParam, float>> changes) {
        for (auto [i, v] : changes) p[i] = v;
        return p;
    };
    const std::tuple<std::string, std::string, Params> cases[] = {
        {"", "natural", natural}, {"--look natural", "natural", natural}, {"--look detail", "detail", detail},
        {"--look=library", "library", library},
        {"--spatial-sigma 3 --look detail", "detail", with(detail, {{kSpatialSigma, 3}})},
        {"--look library --no-preserve-highlights --strength 25", "library",
         with(library, {{kPreserveHighlights, 0}, {kStrength, 25}})},
        {"--preserve-highlights --highlight-influence 4 --strength 12", "natural",
         with(natural, {{kPreserveHighlights, 1}, {kHighlightInfluence, 4}, {kStrength, 12}})}};
    for (const auto &[line, look, want] : cases) {
        std::string message;
        const Options options = parsed(line, message);
        EXPECT_EQ(options.look, look) << line;
        EXPECT_EQ(Params(options.params, options.params + kFusionParamCount), want) << line;
    }
}

// Every committed fuzz input (among them what the fuzzers once found) through
// the function its fuzzer calls.
TEST(FuzzCorpus, EveryCommittedInputReplaysCleanly) {
    const std::pair<const char *, std::string (*)(const uint8_t *, size_t)> targets[] = {
        {"fuzz_read_image", lumora_fuzz::fuzzReadImage},
        {"fuzz_options", lumora_fuzz::fuzzOptions},
        {"fuzz_fusion", lumora_fuzz::fuzzFusion}};
    for (const auto &[name, entry] : targets) {
        int files = 0;
        for (const auto &file : fs::directory_iterator(fs::path(LUMORA_FUZZ_CORPUS_DIR) / name)) {
            std::ifstream in(file.path(), std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), {});
            EXPECT_EQ(entry(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), "") << file.path();
            ++files;
        }
        EXPECT_GE(files, 3) << name;
    }
}

}  // namespace
