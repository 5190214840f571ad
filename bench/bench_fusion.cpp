// hx_fusion2 end to end on the shipped bracket (512x384) and on a 12 MP
// bilinear upscale of it (4000x3000), with 1 and 2 threads. Reports seconds
// per call, processor seconds per call of all threads (cpu_s) and the
// process's peak resident size so far (ru_maxrss): run one case per process
// (--benchmark_filter) to read a case's own peak.
//
// BM_FusionPath times the plain reference against the fast path on a 4 MP
// upscale (2309x1732), highlight preservation off, 2 threads: the fast path
// is meant to be at least ten times faster there. BM_Stage times the raw
// weight loop and the reconstruction alone, plain against fast.
#include <benchmark/benchmark.h>

#include <png.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "BilateralFilter.h"
#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"
#include "pictures.h"

namespace {

using Bytes = std::vector<unsigned char>;
using benchsupport::loadPng;
using benchsupport::upscale;

struct Bracket {
    int w = 0, h = 0;
    Bytes images;  // three exposures, darkest first
};

// The shipped bracket, upscaled to w x h unless w is 0; built once per size.
const Bracket &bracket(int w, int h) {
    static std::map<std::pair<int, int>, Bracket> cache;
    Bracket &b = cache[{w, h}];
    if (b.images.empty()) {
        static const char *names[3] = {"0_dark.png", "1_mid.png", "2_bright.png"};
        for (const char *name : names) {
            int sw, sh;
            Bytes img =
                loadPng(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + name, &sw, &sh);
            if (w != 0) {
                img = upscale(img, sw, sh, w, h);
                sw = w;
                sh = h;
            }
            b.w = sw;
            b.h = sh;
            b.images.insert(b.images.end(), img.begin(), img.end());
        }
    }
    return b;
}

void fuse(benchmark::State &state, const Bracket &b, int threads) {
    optim_param_struct opts{};
    opts.nbProc = threads;
    float params[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(params);
    params[7] = 0.0f;
    Bytes out((size_t)b.w * b.h * 3);
    Bytes images = b.images;
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    for (auto _ : state) {
        hx_fusion2(opts, params, 3, b.w, b.h, b.w, b.h, b.w * 3, 0, 3, 8, 8, 8, nullptr,
                   images.data(), nullptr, out.data(), nullptr);
        benchmark::DoNotOptimize(out.data());
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    // Processor seconds of all threads per call: on a shared machine a
    // steadier measure than the wall time.
    const auto seconds = [](const timeval &t) { return t.tv_sec + t.tv_usec / 1e6; };
    state.counters["cpu_s"] = (seconds(usage.ru_utime) + seconds(usage.ru_stime) -
                               seconds(before.ru_utime) - seconds(before.ru_stime)) /
                              (double)state.iterations();
    state.counters["peak_MB"] = usage.ru_maxrss / 1024.0;
    state.counters["MPixel"] = b.w * (double)b.h / 1e6;
}

void BM_Fusion(benchmark::State &state) {
    const bool large = state.range(0) != 0;
    fuse(state, large ? bracket(4000, 3000) : bracket(0, 0), (int)state.range(1));
}

// range(0): 1 = the plain reference, 0 = the fast path.
void BM_FusionPath(benchmark::State &state) {
    const Bracket &b = bracket(2309, 1732);  // built before the switch is set
    lumora::usePlainPath = state.range(0) != 0;
    fuse(state, b, 2);
    lumora::usePlainPath = false;
}

// The driver's two per-pixel loops alone on the 12 MP upscale, plain and
// fast. range(0): 0 = raw weights of the three exposures (sequential),
// 1 = reconstruction (2 threads), 2 = raw weights with the highlight shift
// and 3 = reconstruction in highlight-preserving mode (the mid exposure as
// the fused image, the dark one as the dark image). range(1): 1 = plain.
// The towers are stand-ins (the exposures themselves): the loops' cost does
// not depend on what the bytes mean.
void BM_Stage(benchmark::State &state) {
    const Bracket &b = bracket(4000, 3000);
    const int stage = (int)state.range(0);
    const bool plain = state.range(1) != 0;
    const int highlight = stage >= 2;
    const int kMax = highlight ? 2 : 3;
    const size_t plane = (size_t)b.w * b.h, image = plane * 3;
    Bytes images = b.images, out(image), poids(plane * kMax * 3);
    unsigned char *img[3] = {images.data(), images.data() + image, images.data() + 2 * image};
    unsigned char *in[3] = {img[0], img[1], img[2]};
    if (highlight) std::swap(in[0], in[1]);  // fused first, then dark
    unsigned char *planes[3] = {poids.data(), poids.data() + plane, poids.data() + 2 * plane};
    float ce[256], cePreserve[256];
    lumora::buildErrorCoefficients(15.0f, ce, cePreserve);
    const lumora::RawWeightsArgs raw{kMax, b.w, b.h, in, planes, ce, ce, highlight};
    lumora::simd::rawWeights(raw);
    for (int lev = 1; lev <= 2; lev++)  // stand-ins for the smoothed weights
        std::copy(poids.begin(), poids.begin() + kMax * plane, poids.begin() + lev * kMax * plane);
    float sharpLUT[258];
    for (int i = 0; i <= 128; i++) {
        const float f = i * (10.0f / 128);
        sharpLUT[i] = (float)std::exp((double)(-f * f / 0.2f)) * 0.4f;
    }
    unsigned char *tower[6], *diff[6];
    for (int s = 0; s < 2 * kMax; s++) {
        tower[s] = in[s / 2];
        diff[s] = img[(s + 1) % 3];
    }
    lumora::ReconstructionArgs a{};
    a.rowIn = (size_t)b.w * 3;
    a.imageStride = image;
    a.poidsImageStride = plane;
    a.resImage = out.data();
    a.outputImageTower = tower;
    a.outputImageDiffTower = diff;
    a.poidsBuffer = poids.data();
    a.imagesBuffer = in[highlight ? 1 : 0];
    a.fusedResult = highlight ? in[0] : nullptr;
    a.coeffErreur = ce;
    a.sharpLUT = sharpLUT;
    a.numLevels = 2;
    a.byteDepthBpsIn = a.byteDepthBpsOut = a.byteDepthPoids = 1;
    a.max7 = 128;
    a.sharpnessFactor = 0.4f;
    a.satCoeff = 1.0f;
    a.kMax = kMax;
    a.jMax = b.h;
    a.iMax = b.w;
    a.spp = 3;
    a.bpsIn = a.bitDepthPoids = a.bpsOut = 8;
    a.rowOut = b.w * 3;
    a.fusionPreserveHighlights = highlight;
    lumora::usePlainPath = plain;
    for (auto _ : state) {
        if (stage % 2 == 1) {
            lumora::reconstruct(2, a);
        } else {
            lumora::rawWeights(raw);  // the switch picks the path
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::DoNotOptimize(poids.data());
    }
    lumora::usePlainPath = false;
}

}  // namespace

// range(0): 0 = 512x384 bracket, 1 = 4000x3000 upscale; range(1): threads.
BENCHMARK(BM_Fusion)
    ->ArgNames({"large", "threads"})
    ->Args({0, 1})
    ->Args({0, 2})
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(3);
BENCHMARK(BM_Fusion)
    ->ArgNames({"large", "threads"})
    ->Args({1, 1})
    ->Args({1, 2})
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(BM_FusionPath)
    ->ArgNames({"plain"})
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(1);

BENCHMARK(BM_Stage)
    ->ArgNames({"stage", "plain"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

BENCHMARK_MAIN();
