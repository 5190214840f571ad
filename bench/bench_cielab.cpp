// Cost of one full fill of the RGB-to-CIELab table, as every fusion call
// pays it: plain and fast path, one and two threads.
#include <benchmark/benchmark.h>

#include "core/switches.h"
#include "diag/diag.h"
#include "blend/blend.h"
#include "driver/driver.h"
#include "filter/filter.h"
#include "image/image.h"
#include "tables/tables.h"

static void fill(benchmark::State &state, bool plain) {
    // Allocate outside the timing, so every timed call is a pure refill.
    if (lumora::labLUT == nullptr) lumora::CIELab_Init(1);
    lumora::usePlainPath = plain;
    for (auto _ : state) {
        lumora::CIELab_Init((int)state.range(0));
        benchmark::DoNotOptimize(lumora::labLUT[255][255][255]);
    }
    if (!plain) state.counters["fallbacks"] = lumora::labSimdFallbacks;
    lumora::usePlainPath = false;
}

static void BM_CIELabInitPlain(benchmark::State &state) { fill(state, true); }
static void BM_CIELabInitFast(benchmark::State &state) { fill(state, false); }
BENCHMARK(BM_CIELabInitPlain)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CIELabInitFast)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
