// Two-level pyramid on a one-megapixel picture with the fusion driver's
// parameters for that size, as an RGB image and as a one-sample plane, on
// the plain per-pixel path and on the vectorised one (labelled with the
// instruction set it dispatched to).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

namespace {

constexpr int kSide = 1024;
constexpr int kLevels = 2;

// Flat blocks of different tones with soft gradients and a little noise: the
// mix of edges and smooth areas the filter meets in a photograph.
std::vector<unsigned char> syntheticImage(int spp) {
    std::mt19937 gen(42);
    std::uniform_int_distribution<int> noise(-6, 6);
    std::vector<unsigned char> img((size_t)kSide * kSide * spp);
    for (int y = 0; y < kSide; y++)
        for (int x = 0; x < kSide; x++) {
            const int block = (x / 96) * 7 + (y / 80) * 13;
            for (int s = 0; s < spp; s++) {
                const int base = (block * (37 + 11 * s)) % 200 + 20 + (x + y) / 64;
                img[((size_t)y * kSide + x) * spp + s] =
                    (unsigned char)std::clamp(base + noise(gen), 0, 255);
            }
        }
    return img;
}

void BM_Pyramid(benchmark::State &state) {
    const int spp = (int)state.range(0);
    const int nbProc = (int)state.range(1);
    const bool fast = state.range(2) != 0;
    std::vector<unsigned char> in = syntheticImage(spp);
    std::vector<std::vector<unsigned char>> tower(kLevels, std::vector<unsigned char>(in.size()));
    std::vector<std::vector<unsigned char>> diffs(kLevels, std::vector<unsigned char>(in.size()));
    unsigned char *towerPtrs[kLevels] = {tower[0].data(), tower[1].data()};
    unsigned char *diffPtrs[kLevels] = {diffs[0].data(), diffs[1].data()};

    const int imgSize = (kSide + kSide) / 2;
    const float factorMult = sqrtf((float)imgSize) / 56.56854248046875f * 10.0f;
    const float mult = std::max(1.0f, 5.0f * factorMult);

    lumora::usePlainPath = !fast;
    for (auto _ : state) {
        srand(0);
        const int r = lumora::fusion2a(nbProc, kLevels, 7.0f, mult, 0.2f, 0.2f, 0, kSide, kSide,
                                       spp, 8, in.data(), spp, 8, nullptr, nullptr, nullptr,
                                       nullptr, diffPtrs, towerPtrs, nullptr);
        benchmark::DoNotOptimize(r);
    }
    lumora::usePlainPath = false;
    state.SetItemsProcessed(state.iterations() * (int64_t)kSide * kSide);
    state.SetLabel(fast ? lumora::simd::targetName() : "plain");
}

BENCHMARK(BM_Pyramid)
    ->ArgNames({"spp", "threads", "fast"})
    ->ArgsProduct({{3, 1}, {1, 2}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
    lumora::CIELab_Init(2);  // RGB input reads the table; fill it once
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
