// Cost of one full fill of the RGB-to-CIELab table, as every fusion call
// pays it, for one and two threads.
#include <benchmark/benchmark.h>

#include "internal.h"

static void BM_CIELabInit(benchmark::State &state) {
    // Allocate outside the timing, so every timed call is a pure refill.
    if (lumora::labLUT == nullptr) lumora::CIELab_Init(1);
    for (auto _ : state) {
        lumora::CIELab_Init((int)state.range(0));
        benchmark::DoNotOptimize(lumora::labLUT[255][255][255]);
    }
}
BENCHMARK(BM_CIELabInit)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
