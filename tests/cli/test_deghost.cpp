// test_deghost.cpp: deghosting on brackets made from one linear radiance map
// per scene (each frame the quantised, camera-curved, clipped radiance at its
// exposure), so that the true motion and the fusion without it are known.
// Bad --deghost options are rows of the tool's bad-input table.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli_support.h"
#include "deghost.h"

using namespace lumora_fuse;
using namespace lumora_cli;

namespace {

constexpr int kWidth = 192, kHeight = 144, kObject = 40;
constexpr double kExposures[3] = {0.25, 1, 4};

// A scene: a textured background, optionally a bright band (clipped in the
// brightest frames), and a textured object at its own place in each frame.
struct Scene {
    const char *name;
    bool object;
    int x[3], y[3];  // the object's top-left corner per frame
    bool band;       // a bright band where the object moves
    int reference;   // --deghost-ref, or -1 for the default (the middle frame)
    int truth;       // the frame whose object place every frame shows in the ground truth
};

double radiance(const Scene &s, int frame, int x, int y, int channel) {
    // Every level carries detail in every frame, but for the band in the
    // brightest one; the object stands out from what it covers in each.
    const double tint[3] = {1.0, 0.95, 0.9};
    double l = 0.03 + 0.02 * x / kWidth + 0.01 * std::sin(x * 0.7) * std::sin(y * 0.45);
    if (s.band && y >= 30 && y < 110)
        l = 0.45 + 0.02 * std::sin(x * 0.5);
    if (s.object && x >= s.x[frame] && x < s.x[frame] + kObject && y >= s.y[frame] && y < s.y[frame] + kObject) {
        const int u = x - s.x[frame], v = y - s.y[frame];
        const bool light = (u / 5 + v / 5) % 2;
        l = s.band ? (light ? 0.6 : 0.3) + 0.03 * std::sin(u * 0.9 + v * 0.4)
                   : (light ? 0.17 : 0.1) + 0.02 * std::sin(u * 0.9 + v * 0.4);
    }
    return l * tint[channel];
}

// Frame i of the scene, with the object where frame `place` has it.
Image frameOf(const Scene &s, int i, int place) {
    Image image{kWidth, kHeight, std::vector<unsigned char>(size_t(kWidth) * kHeight * 3), {}};
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            for (int c = 0; c < 3; ++c) {
                const double e = std::min(1.0, radiance(s, place, x, y, c) * kExposures[i]);
                image.rgb[(size_t(y) * kWidth + x) * 3 + c] = (unsigned char)std::lround(255 * std::pow(e, 1 / 2.2));
            }
    return image;
}

double meanAbs(const Image &a, const Image &b) { return meanAbsDiff(a.rgb, b.rgb); }

class Deghost : public ToolTest {
protected:
    void saveAll(const std::vector<Image> &frames, const std::string &prefix) const {
        for (int i = 0; i < 3; ++i)
            save(at(prefix + std::to_string(i) + ".png"), frames[i]);
    }
    std::string names(const std::string &prefix) const {
        return "@" + prefix + "0.png @" + prefix + "1.png @" + prefix + "2.png";
    }
    Image fused(const std::string &options, const std::string &prefix, const std::string &out) const {
        const ToolRun r = run(options + (options.empty() ? "" : " ") + names(prefix) + " -o @" + out);
        EXPECT_EQ(r.status, 0) << r.err;
        return load(at(out));
    }
};

// Static: nothing replaced, the output byte for byte as without --deghost.
// Moving: the masks find where the object was and is (IoU), and the fusion
// comes much closer to that of the bracket with the object held still. In a
// band the reference (here the brightest frame) has clipped, the frame best
// exposed there stands in, and the object keeps its texture.
TEST_F(Deghost, SyntheticBracketsMaskWhatMovedAndNothingElse) {
    const Scene scenes[] = {
        {"static", false, {}, {}, false, -1, 1},
        {"moving", true, {20, 80, 140}, {60, 40, 70}, false, -1, 1},
        {"in a clipped band", true, {24, 70, 130}, {50, 60, 40}, true, 2, 0},
    };
    for (const Scene &s : scenes) {
        SCOPED_TRACE(s.name);
        std::vector<Image> frames, truth;
        for (int i = 0; i < 3; ++i) {
            frames.push_back(frameOf(s, i, i));
            truth.push_back(frameOf(s, i, s.truth));
        }
        const int reference = s.reference >= 0 ? s.reference : 1;
        std::vector<Image> deghosted = frames;
        DeghostSummary summary;
        deghostFrames(deghosted, reference, summary);
        saveAll(frames, "f");
        saveAll(truth, "t");
        const std::string options = "--deghost --deghost-masks @masks" +
                                    (s.reference >= 0 ? " --deghost-ref @f" + std::to_string(s.reference) + ".png"
                                                      : std::string());
        const Image plain = fused("", "f", "plain.png"), ghostless = fused(options, "f", "deghosted.png");
        // The tool writes the masks the function found.
        for (int i = 0; i < 3; ++i) {
            const Image mask = load(at("masks/f" + std::to_string(i) + "_mask.png"));
            for (size_t p = 0; p < mask.rgb.size(); p += 3)
                ASSERT_EQ(mask.rgb[p], summary.masks[i].empty() ? 0 : summary.masks[i][p / 3]) << "frame " << i;
        }
        if (!s.object) {
            for (int i = 0; i < 3; ++i) {
                EXPECT_TRUE(summary.masks[i].empty()) << "frame " << i;
                EXPECT_EQ(deghosted[i].rgb, frames[i].rgb) << "frame " << i;
            }
            EXPECT_EQ(slurp(at("deghosted.png")), slurp(at("plain.png")));
            continue;
        }
        // Each frame's true region: where it differs from its ground truth.
        for (int i = 0; i < 3; ++i) {
            if (i == reference || i == s.truth)
                continue;
            long long both = 0, either = 0;
            for (int p = 0; p < kWidth * kHeight; ++p) {
                const bool truly = std::abs(frames[i].rgb[3 * p] - truth[i].rgb[3 * p]) +
                                       std::abs(frames[i].rgb[3 * p + 1] - truth[i].rgb[3 * p + 1]) >
                                   0;
                const bool masked = !summary.masks[i].empty() && summary.masks[i][p] >= 128;
                both += truly && masked;
                either += truly || masked;
            }
            std::printf("[ %s ] frame %d: mask IoU %.3f\n", s.name, i, double(both) / double(either));
            EXPECT_GE(double(both) / double(either), 0.8) << "IoU of frame " << i;
        }
        const Image wanted = fused("", "t", "truth.png");
        const double before = meanAbs(plain, wanted), after = meanAbs(ghostless, wanted);
        std::printf("[ %s ] mean absolute difference to the ground truth's fusion: %.3f plain, %.3f deghosted\n",
                    s.name, before, after);
        EXPECT_LT(after, before / 4);
        // The object's texture where the ground truth has it: as varied as there.
        auto spread = [&](const Image &image) {
            double sum = 0, squares = 0;
            for (int y = s.y[s.truth]; y < s.y[s.truth] + kObject; ++y)
                for (int x = s.x[s.truth]; x < s.x[s.truth] + kObject; ++x) {
                    const double v = image.rgb[(size_t(y) * kWidth + x) * 3 + 1];
                    sum += v, squares += v * v;
                }
            const double n = kObject * kObject;
            return std::sqrt(squares / n - sum * sum / (n * n));
        };
        EXPECT_GT(spread(ghostless), 0.8 * spread(wanted));
    }
}

}  // namespace
