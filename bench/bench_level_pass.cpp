// One level pass of the filter pyramid, by kind, in ns per pixel-entry: one
// kernel entry of one pixel of one level (the sum over the pixels of the
// entries of the kernel each one uses; copied pixels count none). Next to it
// the counters give the level's pixel-entries, so that per-kind costs can be
// weighed against the whole fusion.
//
// Kinds (range(0)): 0 colour, 1 one-sample, each on level 1 or 2
// (range(1)); 2 colour and 3 one-sample on level 2 steered by a bright map
// (the highlight pass's map levels). range(2): threads. Levels are set up as
// the pyramid does with the driver's defaults (start radius 3, radius growth
// 5 scaled by the picture size, spatial and range sigma 0.2, default
// accuracies), on the middle exposure of the shipped bracket upscaled to
// 4000x3000 (12 MP) unless --size=WxH is given first. The one-sample plane is
// the picture's green samples; the bright map is its grey (so every kernel
// choice occurs: copies, normal, every anti-diagonal period, fine).
//
// ns_per_entry is wall time; cpu_ns_per_entry counts the processor time of
// all threads, which other work on a shared machine disturbs less (with two
// threads it is the sum of both).
//
// The time includes the level's 3x3 smoothing (a few ns per pixel, nothing
// per entry). Label: the instruction set the SIMD path runs on, or "plain";
// --target=NAME first (AVX2, SSE4, ...: Highway's names) runs the SIMD path
// on that instruction set instead of the best one, so that a machine with
// AVX-512 measures the AVX2 code too. The context names the processor.
//
// BM_LevelPassDevice/kind/level/device: the same levels on each OpenCL
// device the machine has (registered at start, one set per device), in ns
// per pixel-entry of the whole level as the pyramid calls it: the host's
// CIELab planes, the uploads, the kernels band by band, the read-back and the
// CPU's 3x3 smoothing. Labelled with the device's CL_DEVICE_NAME; the
// device's check against the CPU runs before the timing.
#include <benchmark/benchmark.h>
#include <hwy/targets.h>

#include <png.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "core/switches.h"
#include "filter/filter.h"
#include "filter/level_pass_device.h"
#include "image/image.h"
#include "tables/tables.h"
#include "pictures.h"

namespace {

using Bytes = std::vector<unsigned char>;
using benchsupport::loadPng;
using benchsupport::upscale;
using namespace lumora;

int gWidth = 4000, gHeight = 3000;

// The middle exposure at the benchmark's size: RGB, its green plane and its
// grey (the bright map).
struct Picture {
    int w = 0, h = 0;
    Bytes rgb, green, grey;
};

const Picture &picture() {
    static Picture p;
    if (p.rgb.empty()) {
        int sw, sh;
        Bytes img = loadPng(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/1_mid.png", &sw, &sh);
        p.w = gWidth;
        p.h = gHeight;
        p.rgb = upscale(img, sw, sh, p.w, p.h);
        const size_t n = (size_t)p.w * p.h;
        p.green.resize(n);
        p.grey.resize(n);
        for (size_t k = 0; k < n; k++) {
            p.green[k] = p.rgb[3 * k + 1];
            p.grey[k] = (unsigned char)((p.rgb[3 * k] + p.rgb[3 * k + 1] + p.rgb[3 * k + 2]) / 3);
        }
        CIELab_Init(2);
    }
    return p;
}

// Processor seconds of all the process's threads so far.
double processSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return (double)t.tv_sec + t.tv_nsec * 1e-9;
}

// The range-table reads the SIMD path uses, by name.
const char *readsName() {
    return simd::chosenLaneReads() == simd::LaneReads::Loads ? "loads" : "gather";
}

// One level as the pyramid sets it up with the driver's parameters.
struct Level {
    std::vector<KernelEntry> normal, fine;
    std::vector<float> expLut;
    ImageWithBorder img{};
    Bytes out, smooth;
    LevelPassArgs a{};
    double entries = 0;  // pixel-entries of the pass
    ~Level() { freeOutsideImageBorders(&img); }
};

void buildLevel(Level &l, const Picture &p, int spp, int level, bool map) {
    const int iMax = p.w, jMax = p.h;
    const int size = std::min(2999, std::min(iMax, jMax));
    const float sigma = (float)(0.2f * 1.7320508075688772);
    const int imgSize = (iMax + jMax) / 2;
    const float mult = std::max(1.0f, 5.0f * (sqrtf((float)imgSize) / 56.56854248046875f * 10.0f));
    int accuracy[2] = {SPATIAL_KERNEL_APPROX_DEFAULT, SPATIAL_KERNEL_APPROX_DEFAULT};
    int high[2] = {SPATIAL_KERNEL_APPROX_FINE, SPATIAL_KERNEL_APPROX_FINE};
    const int n = fastSpatialKernelNumEntries(size, sigma, mult, level - 1, accuracy);
    const int nf = fastSpatialKernelNumEntries(size, sigma, mult, level - 1, high);
    l.normal.assign(std::max(n, nf) + 1, KernelEntry{});
    l.fine.assign(std::max(n, nf) + 1, KernelEntry{});
    makeFastSpatialKernel(size, sigma, mult, level - 1, accuracy, l.normal.data());
    makeFastSpatialKernel(size, sigma, mult, level - 1, high, l.fine.data());
    int kernelSize = l.normal[n - 1].xpos - l.normal[0].xpos + 1;
    int fineSize = l.fine[nf - 1].xpos - l.fine[0].xpos + 1;
    const int half = kernelSize / 2;
    const int largestHalf = std::max(half, fineSize / 2);
    // One centre for both kernels: the narrower moves onto the wider's.
    const int dx = l.normal[n / 2].xpos - l.fine[nf / 2].xpos;
    const int dy = l.normal[n / 2].ypos - l.fine[nf / 2].ypos;
    if (kernelSize > fineSize)
        for (int e = 0; e < nf; e++) l.fine[e].xpos += dx, l.fine[e].ypos += dy;
    else if (fineSize > kernelSize)
        for (int e = 0; e < n; e++) l.normal[e].xpos -= dx, l.normal[e].ypos -= dy;
    const auto physical = [](int width) {
        int s = width <= 4 ? 5 : width;
        if (s >= width) s = width;
        if (s == 0) s = 1;
        return s % 2 == 0 ? s + 1 : s;
    };
    fineSize = std::min(fineSize, std::min(iMax, jMax) - 1);
    kernelSize = std::min(kernelSize, jMax - 1);
    const int phys = physical(kernelSize), physFine = physical(fineSize);
    const int border = std::max(phys / 2, physFine / 2);

    const Bytes &in = spp == 3 ? p.rgb : p.green;
    l.img.inputImage = const_cast<unsigned char *>(in.data());
    l.img.borderWidth = border;
    l.img.mainImageHasBorders = 1;
    if (createOutsideImageBorders(iMax, jMax, spp, 8, &l.img) == -4) std::exit(1);
    l.expLut.resize(fusion2luts(255));
    fusion2lut(0.2f, 255, l.expLut.data());
    l.out.assign(in.size(), 0);
    l.smooth.assign(in.size(), 0);

    LevelPassArgs &a = l.a;
    a.img = a.filterImg = &l.img;
    a.filterSpp = a.spp = spp;
    a.filterBps = a.bps = 8;
    a.byteDepth = 1;
    a.filterRowStride = a.rowStride = a.rowStrideBytes = iMax * spp;
    a.filterExtendedRowStride = a.extendedRowStride = (iMax + 2 * border) * spp;
    a.imgOutput = l.out.data();
    a.smoothImg = l.smooth.data();
    a.spatialKernel = l.normal.data();
    a.numKernelEntries = n;
    a.spatialKernelFine = l.fine.data();
    a.numFineKernelEntries = nf;
    a.expLut = l.expLut.data();
    a.brightImage = map ? const_cast<unsigned char *>(p.grey.data()) : nullptr;
    a.iMax = iMax;
    a.jMax = jMax;
    a.physicalKernelSize = phys;
    a.halfKernelSize = half;
    a.largestHalfKernelSize = largestHalf;
    a.largestPhysicalKernelSize = std::max(phys, physFine);
    a.level = level;
    a.rangeKernelSigma = 0.2f;
    a.imageHasBorder = 1;

    if (!levelUsesBrightMap(a)) {
        l.entries = (double)n * iMax * jMax;
    } else {
        for (int j = 0; j < jMax; j++)
            for (int i = 0; i < iMax; i++) {
                const KernelChoice c = chooseKernel(p.grey[(size_t)j * iMax + i], i, j);
                l.entries += c == KernelChoice::Fine ? nf : c == KernelChoice::Normal ? n : 0;
            }
    }
}

// range(0): kind (0 colour, 1 one-sample, 2 colour with map, 3 one-sample
// with map); range(1): level; range(2): threads; range(3): 1 = plain path.
void BM_LevelPass(benchmark::State &state) {
    const int kind = (int)state.range(0);
    const int level = (int)state.range(1);
    const int threads = (int)state.range(2);
    const bool plain = state.range(3) != 0;
    const Picture &p = picture();
    Level l;
    buildLevel(l, p, kind % 2 ? 1 : 3, level, kind >= 2);
    usePlainPath = plain;
    double seconds = 0, cpuSeconds = 0;
    for (auto _ : state) {
        const double c0 = processSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        levelPass(threads, l.a);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        cpuSeconds += processSeconds() - c0;
        benchmark::DoNotOptimize(l.out.data());
    }
    usePlainPath = false;
    state.counters["pixel_entries"] = l.entries;
    state.counters["entries_per_pixel"] = l.entries / ((double)p.w * p.h);
    state.counters["ns_per_entry"] = seconds * 1e9 / ((double)state.iterations() * l.entries);
    state.counters["cpu_ns_per_entry"] =
        cpuSeconds * 1e9 / ((double)state.iterations() * l.entries);
    static const char *kinds[] = {"colour", "one-sample", "colour map", "one-sample map"};
    const std::string path = plain ? "plain" : std::string(simd::targetName()) + " " + readsName();
    state.SetLabel(std::string(kinds[kind]) + " " + std::to_string(p.w) + "x" +
                   std::to_string(p.h) + " " + path);
}

void levelArgs(benchmark::internal::Benchmark *b) {
    b->ArgNames({"kind", "level", "threads", "plain"});
    for (int threads : {1, 2}) {
        for (int kind : {0, 1})
            for (int level : {1, 2}) b->Args({kind, level, threads, 0});
        for (int kind : {2, 3}) b->Args({kind, 2, threads, 0});
    }
}
BENCHMARK(BM_LevelPass)->Apply(levelArgs)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plain reference on a few kinds (slow: use a small --size).
BENCHMARK(BM_LevelPass)
    ->Name("BM_LevelPassPlain")
    ->ArgNames({"kind", "level", "threads", "plain"})
    ->Args({0, 1, 1, 1})
    ->Args({1, 1, 1, 1})
    ->Args({2, 2, 1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// range(0): kind, range(1): level, range(2): the OpenCL device.
void BM_LevelPassDevice(benchmark::State &state) {
    const int kind = (int)state.range(0);
    const int level = (int)state.range(1);
    const int d = (int)state.range(2);
    const Picture &p = picture();
    Level l;
    buildLevel(l, p, kind % 2 ? 1 : 3, level, kind >= 2);
    const std::string name = device::deviceNames()[d];
    if (!device::selectDevice(d) || !device::selectedDevicePasses()) {
        state.SkipWithError(("device " + name + " refused").c_str());
        return;
    }
    levelPass(2, l.a);  // the kernels built, the buffers' first use
    double seconds = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        levelPass(2, l.a);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        benchmark::DoNotOptimize(l.out.data());
    }
    const bool onDevice = device::lastLevelDevice() == name;
    device::selectDevice(-1);
    if (!onDevice) {
        state.SkipWithError("the level ran on the CPU");
        return;
    }
    state.counters["pixel_entries"] = l.entries;
    state.counters["ns_per_entry"] = seconds * 1e9 / ((double)state.iterations() * l.entries);
    static const char *kinds[] = {"colour", "one-sample", "colour map", "one-sample map"};
    state.SetLabel(std::string(kinds[kind]) + " " + std::to_string(p.w) + "x" +
                   std::to_string(p.h) + " " + name);
}

// Every kind on every OpenCL device.
void registerDevices() {
    const std::vector<std::string> names = device::deviceNames();
    for (int d = 0; d < (int)names.size(); d++) {
        auto *b = benchmark::RegisterBenchmark("BM_LevelPassDevice", BM_LevelPassDevice);
        b->ArgNames({"kind", "level", "device"});
        for (int kind : {0, 1})
            for (int level : {1, 2}) b->Args({kind, level, d});
        for (int kind : {2, 3}) b->Args({kind, 2, d});
        b->Unit(benchmark::kMillisecond)->UseRealTime();
    }
}

// The processor's model name, as lscpu gives it.
std::string processorName() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("model name", 0) == 0 && line.find(':') != std::string::npos)
            return line.substr(line.find(':') + 2);
    return "unknown";
}

// Limits the SIMD path to the compiled instruction set called `name`.
bool forceTarget(const char *name) {
    for (int64_t target : hwy::SupportedAndGeneratedTargets())
        if (std::strcmp(hwy::TargetName(target), name) == 0) {
            hwy::SetSupportedTargetsForTest(target);
            return std::strcmp(simd::targetName(), name) == 0;
        }
    return false;
}

}  // namespace

// --size=WxH, --target=NAME and --reads=gather|loads (before the benchmark's
// own flags) set the picture size, the instruction set and the range-table
// reads (by default measured on first use).
int main(int argc, char **argv) {
    std::vector<char *> rest;
    for (int k = 0; k < argc; k++) {
        if (std::strncmp(argv[k], "--target=", 9) == 0) {
            if (!forceTarget(argv[k] + 9)) {
                std::fprintf(stderr, "--target=%s: not compiled or not supported here\n",
                             argv[k] + 9);
                return 1;
            }
            continue;
        }
        if (std::strncmp(argv[k], "--reads=", 8) == 0) {
            const std::string reads = argv[k] + 8;
            if (reads != "gather" && reads != "loads") {
                std::fprintf(stderr, "--reads=gather|loads\n");
                return 1;
            }
            simd::laneReads = reads == "gather" ? 1 : 2;
            continue;
        }
        if (std::strncmp(argv[k], "--size=", 7) == 0) {
            if (std::sscanf(argv[k] + 7, "%dx%d", &gWidth, &gHeight) != 2 || gWidth < 1 ||
                gHeight < 1) {
                std::fprintf(stderr, "--size=WxH\n");
                return 1;
            }
            continue;
        }
        rest.push_back(argv[k]);
    }
    int n = (int)rest.size();
    benchmark::Initialize(&n, rest.data());
    benchmark::AddCustomContext("processor", processorName());
    benchmark::AddCustomContext("instruction_set", simd::targetName());
    benchmark::AddCustomContext("lane_reads", readsName());
    registerDevices();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
