// test_fusion_call.cpp: how lumora-fuse prepares and calls the fusion library
// (small pictures extended by mirroring and cropped back), and the committed
// fuzz corpora replayed through the fuzzers' own entry functions.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
