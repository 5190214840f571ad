// hx_fusion2 end to end on the shipped bracket (512x384) and on a 12 MP
// bilinear upscale of it (4000x3000), with 1 and 2 threads. Reports seconds
// per call and the process's peak resident size so far (ru_maxrss): run one
// case per process (--benchmark_filter) to read a case's own peak.
#include <benchmark/benchmark.h>

#include <png.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BilateralFilter.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes loadPng(const std::string &path, int *w, int *h) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Bytes out;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        std::exit(1);
    }
    image.format = PNG_FORMAT_RGB;
    out.resize(PNG_IMAGE_SIZE(image));
    png_image_finish_read(&image, nullptr, out.data(), 0, nullptr);
    *w = (int)image.width;
    *h = (int)image.height;
    return out;
}

Bytes upscale(const Bytes &src, int w, int h, int W, int H) {
    Bytes out((size_t)W * H * 3);
    for (int y = 0; y < H; y++) {
        const float fy = (y + 0.5f) * h / H - 0.5f;
        const int y0 = fy < 0 ? 0 : (int)fy, y1 = y0 + 1 < h ? y0 + 1 : h - 1;
        const float ty = fy < 0 ? 0.0f : fy - y0;
        for (int x = 0; x < W; x++) {
            const float fx = (x + 0.5f) * w / W - 0.5f;
            const int x0 = fx < 0 ? 0 : (int)fx, x1 = x0 + 1 < w ? x0 + 1 : w - 1;
            const float tx = fx < 0 ? 0.0f : fx - x0;
            for (int s = 0; s < 3; s++) {
                auto at = [&](int xx, int yy) { return (float)src[((size_t)yy * w + xx) * 3 + s]; };
                const float top = at(x0, y0) * (1 - tx) + at(x1, y0) * tx;
                const float bottom = at(x0, y1) * (1 - tx) + at(x1, y1) * tx;
                out[((size_t)y * W + x) * 3 + s] =
                    (unsigned char)(top * (1 - ty) + bottom * ty + 0.5f);
            }
        }
    }
    return out;
}

struct Bracket {
    int w = 0, h = 0;
    Bytes images;  // three exposures, darkest first
};

const Bracket &bracket(bool large) {
    static Bracket small, big;
    Bracket &b = large ? big : small;
    if (b.images.empty()) {
        static const char *names[3] = {"0_dark.png", "1_mid.png", "2_bright.png"};
        for (const char *name : names) {
            int w, h;
            Bytes img = loadPng(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + name, &w, &h);
            if (large) {
                img = upscale(img, w, h, 4000, 3000);
                w = 4000;
                h = 3000;
            }
            b.w = w;
            b.h = h;
            b.images.insert(b.images.end(), img.begin(), img.end());
        }
    }
    return b;
}

void BM_Fusion(benchmark::State &state) {
    const Bracket &b = bracket(state.range(0) != 0);
    optim_param_struct opts{};
    opts.nbProc = (int)state.range(1);
    float params[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(params);
    params[7] = 0.0f;
    Bytes out((size_t)b.w * b.h * 3);
    Bytes images = b.images;
    for (auto _ : state) {
        hx_fusion2(opts, params, 3, b.w, b.h, b.w, b.h, b.w * 3, 0, 3, 8, 8, 8, nullptr,
                   images.data(), nullptr, out.data(), nullptr);
        benchmark::DoNotOptimize(out.data());
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_MB"] = usage.ru_maxrss / 1024.0;
    state.counters["MPixel"] = b.w * (double)b.h / 1e6;
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

BENCHMARK_MAIN();
