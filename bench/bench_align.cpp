// The command-line tool's frame alignment (--align) on the shipped bracket
// scaled to 12 MP (4000x3000, bicubic), the dark and bright frames moved by a
// few pixels and turned by a fraction of a degree against the middle one, as
// a handheld bracket is. With 1 and 2 OpenCV threads:
//   BM_AlignFrames     registration of both frames, resampling and crop
//   BM_Misalignment    the look run without --align, on the moved bracket
//                      (moved:1), which it confirms at --align's resolution,
//                      and on the same frames unmoved (moved:0), a tripod
//                      bracket, which it settles at a coarse resolution
// Reports seconds per call and per aligned frame (per_frame_s).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "align.h"
#include "image_io.h"

namespace {

using lumora_fuse::Image;

// The 12 MP bracket: frame i turned by degrees[i] about the centre and
// moved by (dx[i], dy[i]) pixels; or, unmoved, the middle exposure at half,
// once and twice its brightness (the sample's own frames, scaled up, lie a
// few pixels apart).
std::vector<Image> make(bool moved) {
    const char *names[] = {"0_dark.png", "1_mid.png", "2_bright.png"};
    const double degrees[] = {0.4, 0, -0.25}, dx[] = {7.3, 0, -4.6}, dy[] = {-3.1, 0, 5.8};
    const int width = 4000, height = 3000;
    std::vector<Image> out;
    for (int i = 0; i < 3; ++i) {
        Image sample;
        std::string error;
        const char *name = moved ? names[i] : names[1];
        if (!lumora_fuse::readImage(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + name, sample, error)) {
            std::fprintf(stderr, "%s: %s\n", name, error.c_str());
            std::exit(1);
        }
        const cv::Mat in(sample.height, sample.width, CV_8UC3, sample.rgb.data());
        cv::Mat large, shifted;
        cv::resize(in, large, cv::Size(width, height), 0, 0, cv::INTER_CUBIC);
        if (!moved)
            large.convertTo(large, -1, std::ldexp(1.0, i - 1));
        cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(width / 2.0f, height / 2.0f), moved ? degrees[i] : 0, 1.0);
        m.at<double>(0, 2) += moved ? dx[i] : 0;
        m.at<double>(1, 2) += moved ? dy[i] : 0;
        cv::warpAffine(large, shifted, m, large.size(), cv::INTER_CUBIC, cv::BORDER_REFLECT);
        Image frame;
        frame.width = width;
        frame.height = height;
        frame.rgb.assign(shifted.data, shifted.data + shifted.total() * 3);
        out.push_back(std::move(frame));
    }
    return out;
}

// Each made once, when first asked for.
const std::vector<Image> &bracket(bool moved = true) {
    static std::vector<Image> made[2];
    if (made[moved].empty())
        made[moved] = make(moved);
    return made[moved];
}

void BM_AlignFrames(benchmark::State &state) {
    cv::setNumThreads(int(state.range(0)));
    const std::vector<Image> &frames = bracket();
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<Image> copy = frames;
        state.ResumeTiming();
        lumora_fuse::AlignSummary summary;
        std::string error;
        if (!lumora_fuse::alignFrames(copy, 1, summary, error))
            state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(copy);
    }
    state.counters["per_frame_s"] = benchmark::Counter(2, benchmark::Counter::kIsIterationInvariantRate |
                                                                benchmark::Counter::kInvert);
}

void BM_Misalignment(benchmark::State &state) {
    cv::setNumThreads(int(state.range(0)));
    const std::vector<Image> &frames = bracket(state.range(1) != 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(lumora_fuse::misalignment(frames, 1));
}

}  // namespace

BENCHMARK(BM_AlignFrames)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kSecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_Misalignment)->ArgNames({"threads", "moved"})->ArgsProduct({{1, 2}, {0, 1}})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

BENCHMARK_MAIN();
