// The command-line tool's deghosting (--deghost) against the fusion it
// precedes, on the shipped bracket scaled to 12 MP (4000x3000, bicubic) with
// a 400x400 patch of it moved to another place in every frame, as a walker
// is. Threads 1 and 2 (OpenCV's, and the fusion's):
//   BM_Deghost   masks of both frames against the middle one, and their replacement
//   BM_Fusion    the tool's fusion of the same frames in this process (natural look)
// The target: deghosting at most a fifth of the fusion's time.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "deghost.h"
#include "fusion_child.h"
#include "image_io.h"
#include "options.h"
#include "run.h"

namespace {

using lumora_fuse::Image;

const std::vector<Image> &bracket() {
    static const std::vector<Image> frames = [] {
        const char *names[] = {"0_dark.png", "1_mid.png", "2_bright.png"};
        const int width = 4000, height = 3000, side = 400, x[] = {600, 1400, 2300}, y[] = {1700, 1500, 1800};
        std::vector<Image> out;
        for (int i = 0; i < 3; ++i) {
            Image sample;
            std::string error;
            if (!lumora_fuse::readImage(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + names[i], sample, error)) {
                std::fprintf(stderr, "%s: %s\n", names[i], error.c_str());
                std::exit(1);
            }
            const cv::Mat in(sample.height, sample.width, CV_8UC3, sample.rgb.data());
            cv::Mat large;
            cv::resize(in, large, cv::Size(width, height), 0, 0, cv::INTER_CUBIC);
            large(cv::Rect(200, 200, side, side)).copyTo(large(cv::Rect(x[i], y[i], side, side)));
            Image frame;
            frame.width = width;
            frame.height = height;
            frame.rgb.assign(large.data, large.data + large.total() * 3);
            out.push_back(std::move(frame));
        }
        return out;
    }();
    return frames;
}

void BM_Deghost(benchmark::State &state) {
    cv::setNumThreads(int(state.range(0)));
    const std::vector<Image> &frames = bracket();
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<Image> copy = frames;
        state.ResumeTiming();
        lumora_fuse::DeghostSummary summary;
        lumora_fuse::deghostFrames(copy, 1, summary);
        benchmark::DoNotOptimize(copy);
        state.counters["replaced_percent"] = 100 * (summary.replaced[0] + summary.replaced[2]) / 2;
    }
}

void BM_Fusion(benchmark::State &state) {
    const char *argv[] = {"lumora-fuse", "a.png", "b.png", "c.png", "-o", "fused.png"};
    lumora_fuse::Options options;
    std::string message;
    if (lumora_fuse::parseOptions(6, argv, options, message) != lumora_fuse::kContinue)
        return state.SkipWithError(message.c_str());
    options.threads = int(state.range(0));
    const std::vector<Image> &frames = bracket();
    const std::vector<const Image *> exposures = {&frames[0], &frames[1], &frames[2]};
    lumora_fuse::Loupe whole;
    whole.width = frames[0].width;
    whole.height = frames[0].height;
    for (auto _ : state) {
        lumora_fuse::SharedBuffer out;
        std::string error;
        if (lumora_fuse::fuseHere(lumora_fuse::fusionRunOf(options, exposures, whole), out, error) !=
            lumora_fuse::FusionResult::Done)
            return state.SkipWithError(error.c_str());
    }
}

}  // namespace

BENCHMARK(BM_Deghost)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kSecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_Fusion)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kSecond)->MeasureProcessCPUTime()->UseRealTime();

BENCHMARK_MAIN();
