// The command-line tool's frame alignment (--align) on the shipped bracket
// scaled to 12 MP (4000x3000, bicubic), the dark and bright frames moved by a
// few pixels and turned by a fraction of a degree against the middle one, as
// a handheld bracket is. With 1 and 2 OpenCV threads:
//   BM_AlignFrames     registration of both frames, resampling and crop
//   BM_Misalignment    the quick look run without --align
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

// The 12 MP bracket, made once: frame i turned by degrees[i] about the
// centre and moved by (dx[i], dy[i]) pixels.
const std::vector<Image> &bracket() {
    static const std::vector<Image> frames = [] {
        const char *names[] = {"0_dark.png", "1_mid.png", "2_bright.png"};
        const double degrees[] = {0.4, 0, -0.25}, dx[] = {7.3, 0, -4.6}, dy[] = {-3.1, 0, 5.8};
        const int width = 4000, height = 3000;
        std::vector<Image> out;
        for (int i = 0; i < 3; ++i) {
            Image sample;
            std::string error;
            if (!lumora_fuse::readImage(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + names[i], sample, error)) {
                std::fprintf(stderr, "%s: %s\n", names[i], error.c_str());
                std::exit(1);
            }
            const cv::Mat in(sample.height, sample.width, CV_8UC3, sample.rgb.data());
            cv::Mat large, moved;
            cv::resize(in, large, cv::Size(width, height), 0, 0, cv::INTER_CUBIC);
            cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(width / 2.0f, height / 2.0f), degrees[i], 1.0);
            m.at<double>(0, 2) += dx[i];
            m.at<double>(1, 2) += dy[i];
            cv::warpAffine(large, moved, m, large.size(), cv::INTER_CUBIC, cv::BORDER_REFLECT);
            Image frame;
            frame.width = width;
            frame.height = height;
            frame.rgb.assign(moved.data, moved.data + moved.total() * 3);
            out.push_back(std::move(frame));
        }
        return out;
    }();
    return frames;
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
    const std::vector<Image> &frames = bracket();
    for (auto _ : state)
        benchmark::DoNotOptimize(lumora_fuse::misalignment(frames, 1));
}

}  // namespace

BENCHMARK(BM_AlignFrames)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kSecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_Misalignment)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

BENCHMARK_MAIN();
