// The 8-bit level pass on an OpenCL device. The host uploads both kernels,
// the range table and the bright map once per level, and the bordered level
// with its CIELab planes (colour) at once to a GPU, band by band to a CPU
// device; it launches the rows band by band and reads each band back; the
// 3x3 smoothing stays on the CPU.
#include "filter/level_pass_device.h"

#include <algorithm>
#include <cfenv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "core/switches.h"
#include "diag/diag.h"
#include "image/image.h"
#include "tables/tables.h"

#ifdef LUMORA_HAVE_OPENCL
#include <CL/cl.h>
#include <signal.h>
#endif

namespace lumora {
namespace device {

int bandRows = 0;
int perturbBytes = 0;
int failAtLaunch = 0;
int driverDraws = 0;
int inputLayout = 0;
bool divideInDouble = false;

void referenceRows(const LevelPassArgs &a) {
    std::vector<KernelEntry> kernel(
        (size_t)std::max({a.numKernelEntries, a.numFineKernelEntries, 1}));
    for (int j = 0; j < a.jMax; j++)
        for (int i = 0; i < a.iMax; i++) filterPixel8(a, i, j, 0, kernel.data());
}

namespace {

ProgressCallback pollCallback = nullptr;
const float *pollAmount = nullptr;
bool cancelled = false;

}  // namespace

void setBandPoll(ProgressCallback callback, const float *amount) {
    pollCallback = callback;
    pollAmount = amount;
    cancelled = false;
}

bool cancelledBetweenBands() { return cancelled; }

#ifndef LUMORA_HAVE_OPENCL

std::vector<std::string> deviceNames() { return {}; }
bool deviceIsCpu(int) { return false; }
bool selectDevice(int index) { return index == -1; }
int selectedDevice() { return -1; }
bool selectedDevicePasses() { return false; }
std::string lastLevelDevice() { return "CPU"; }
bool levelRows(const LevelPassArgs &, int) { return false; }

#else

namespace {

std::mutex deviceMutex;
int chosen = -1;
std::string lastDevice = "CPU";

// What the device pass covers: 8-bit one- or three-sample levels with their
// border built in, guided by themselves, no debug dumps, indices that fit
// an int, one-sample brightness differences inside the range table.
bool covers(const LevelPassArgs &a) {
    if (a.bps != 8 || a.filterBps != 8 || (a.spp != 1 && a.spp != 3)) return false;
    if (a.filterSpp != a.spp || a.filterImg != a.img || !a.imageHasBorder) return false;
    if (!a.img->mainImageHasBorders || dbgTestImage) return false;
    const int b = a.img->borderWidth;
    if (a.extendedRowStride != (a.iMax + 2 * b) * a.spp || a.largestHalfKernelSize > b)
        return false;
    if ((double)(a.iMax + 2 * b) * (a.jMax + 2 * b) * 3 > INT_MAX / 2) return false;
    // Every entry inside the window the border allows: a band uploads the
    // rows its windows reach and no more.
    float largest = 0.0f;
    const int fine = a.levelGaussOnly ? 0 : a.numFineKernelEntries;
    for (int e = 0; e < a.numKernelEntries + fine; e++) {
        const KernelEntry &k =
            e < a.numKernelEntries ? a.spatialKernel[e] : a.spatialKernelFine[e - a.numKernelEntries];
        if (k.xpos < 0 || k.ypos < 0 || k.xpos > 2 * b || k.ypos > 2 * b) return false;
        largest = std::max(largest, std::fabs(k.factor));
    }
    return largest < 4096.0f && a.numKernelEntries > 0;
}

// Per bright value: -1 copied, 0 normal kernel, p > 0 the fine kernel where
// (i + j) % p == 0, found from chooseKernel itself.
std::vector<int> periods() {
    std::vector<int> p(256, 0);
    for (int bright = 0; bright < 256; bright++) {
        if (chooseKernel(bright, 0, 0) == KernelChoice::Copy) {
            p[bright] = -1;
            continue;
        }
        for (int period = 1; period <= 64 && p[bright] == 0; period++)
            if (chooseKernel(bright, period, 0) == KernelChoice::Fine) p[bright] = period;
    }
    return p;
}

}  // namespace

namespace {

const char kKernelSource[] =
#include "level_pass_cl.inc"
    ;

// What an OpenCL runtime may change in the calling thread, kept as it was
// around every call into it:
// - signal handlers: PoCL's LLVM installs its own for most signals as it
//   starts or compiles (SIGINT, SIGTERM, SIGABRT, SIGSEGV...);
// - the floating-point environment (rounding, flushing of subnormals);
// - the C library's rand() sequence, from which the fusion draws its
//   kernels' jitter. NVIDIA's OpenCL driver (580, an H100) draws from it in
//   a process's first device calls: the levels drawn after them got other
//   kernels, and the first fusion on the device other bytes than the CPU's.
//   A driver's draws inside our calls go to a scratch state of their own
//   (glibc's rand() is random(), whose state setstate swaps), and the
//   fusion's sequence resumes where it stood.
class KeepHostState {
public:
    KeepHostState() {
        for (int s = 1; s < NSIG; s++) sigaction(s, nullptr, &saved_[s]);
        fegetenv(&environment_);
        randState_ = initstate(1, scratch_, sizeof scratch_);
    }
    ~KeepHostState() {
        setstate(randState_);
        fesetenv(&environment_);
        for (int s = 1; s < NSIG; s++)
            if (s != SIGKILL && s != SIGSTOP) sigaction(s, &saved_[s], nullptr);
    }
    KeepHostState(const KeepHostState &) = delete;
    KeepHostState &operator=(const KeepHostState &) = delete;

private:
    struct sigaction saved_[NSIG];
    fenv_t environment_;
    char scratch_[128];
    char *randState_;
};

std::vector<cl_device_id> allDevices() {
    std::vector<cl_device_id> devices;
    cl_uint numPlatforms = 0;
    if (clGetPlatformIDs(0, nullptr, &numPlatforms) != CL_SUCCESS || numPlatforms == 0)
        return devices;
    std::vector<cl_platform_id> platforms(numPlatforms);
    if (clGetPlatformIDs(numPlatforms, platforms.data(), nullptr) != CL_SUCCESS) return devices;
    for (cl_platform_id p : platforms) {
        cl_uint n = 0;
        if (clGetDeviceIDs(p, CL_DEVICE_TYPE_ALL, 0, nullptr, &n) != CL_SUCCESS || n == 0)
            continue;
        std::vector<cl_device_id> ids(n);
        if (clGetDeviceIDs(p, CL_DEVICE_TYPE_ALL, n, ids.data(), nullptr) == CL_SUCCESS)
            devices.insert(devices.end(), ids.begin(), ids.end());
    }
    return devices;
}

bool isCpu(cl_device_id d) {
    cl_device_type type = 0;
    clGetDeviceInfo(d, CL_DEVICE_TYPE, sizeof type, &type, nullptr);
    return (type & CL_DEVICE_TYPE_CPU) != 0;
}

std::string nameOf(cl_device_id d) {
    char name[256] = {0};
    clGetDeviceInfo(d, CL_DEVICE_NAME, sizeof name - 1, name, nullptr);
    return name;
}

// An OpenCL call that failed: which, and its code.
struct ClError {
    const char *call;
    cl_int code;
};
void check(cl_int code, const char *call) {
    if (code != CL_SUCCESS) throw ClError{call, code};
}

// A buffer released with its scope.
struct Buffer {
    cl_mem mem = nullptr;
    Buffer() = default;
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() {
        if (mem) clReleaseMemObject(mem);
    }
    void make(cl_context ctx, cl_mem_flags flags, size_t bytes, const void *data) {
        cl_int err;
        mem = clCreateBuffer(ctx, flags | (data ? CL_MEM_COPY_HOST_PTR : 0),
                             std::max<size_t>(bytes, 16), const_cast<void *>(data), &err);
        check(err, "clCreateBuffer");
    }
};

// One device's context, queue and built kernel, made on its first use.
struct DeviceState {
    enum class Check { NotYet, Passed, Refused };
    cl_device_id id = nullptr;
    std::string name;
    cl_context context = nullptr;
    cl_command_queue queue = nullptr;
    cl_program program = nullptr;
    cl_kernel kernel = nullptr;
    std::string options;  // the kernels' build options
    bool isCpu = false;                        // its memory is the host's (known from enumerate)
    cl_ulong maxAlloc = 0, globalMemory = 0;   // bytes: one buffer, all
    Check check = Check::NotYet;
    bool failed = false;  // an OpenCL error: the CPU filters from then on
};

std::vector<DeviceState> states;

// The build options that make the device's division the CPU's, or an empty
// string for a device that cannot divide exactly or lacks subnormal floats.
std::string exactOptions(cl_device_id d, const char *&why) {
    cl_device_fp_config single = 0, dbl = 0;
    clGetDeviceInfo(d, CL_DEVICE_SINGLE_FP_CONFIG, sizeof single, &single, nullptr);
    clGetDeviceInfo(d, CL_DEVICE_DOUBLE_FP_CONFIG, sizeof dbl, &dbl, nullptr);
    // Range weights can be subnormal, and the CPU keeps them.
    if (!(single & CL_FP_DENORM)) {
        why = "no subnormal floats";
        return "";
    }
    if ((single & CL_FP_CORRECTLY_ROUNDED_DIVIDE_SQRT) && !(divideInDouble && dbl != 0))
        return "-cl-fp32-correctly-rounded-divide-sqrt";
    if (dbl != 0) return "-DLUMORA_DIVIDE_IN_DOUBLE";
    why = "no correctly rounded division";
    return "";
}

// A device whose arithmetic cannot give the CPU's bytes, and why.
struct Unfit {
    const char *why;
};

// The context and queue once, the kernels again whenever their options
// change (the test switch divideInDouble).
void build(DeviceState &s) {
    const char *why = "";
    const std::string options = exactOptions(s.id, why);
    if (options.empty()) throw Unfit{why};
    if (s.kernel != nullptr && options == s.options) return;
    cl_int err;
    if (s.context == nullptr) {
        clGetDeviceInfo(s.id, CL_DEVICE_MAX_MEM_ALLOC_SIZE, sizeof s.maxAlloc, &s.maxAlloc,
                        nullptr);
        clGetDeviceInfo(s.id, CL_DEVICE_GLOBAL_MEM_SIZE, sizeof s.globalMemory, &s.globalMemory,
                        nullptr);
        s.context = clCreateContext(nullptr, 1, &s.id, nullptr, nullptr, &err);
        check(err, "clCreateContext");
        s.queue = clCreateCommandQueue(s.context, s.id, 0, &err);
        check(err, "clCreateCommandQueue");
    }
    if (s.kernel != nullptr) clReleaseKernel(s.kernel);
    if (s.program != nullptr) clReleaseProgram(s.program);
    s.kernel = nullptr;
    s.program = nullptr;
    const char *source = kKernelSource;
    s.program = clCreateProgramWithSource(s.context, 1, &source, nullptr, &err);
    check(err, "clCreateProgramWithSource");
    check(clBuildProgram(s.program, 1, &s.id, options.c_str(), nullptr, nullptr),
          "clBuildProgram");
    s.kernel = clCreateKernel(s.program, "levelRows", &err);
    check(err, "clCreateKernel");
    s.options = options;
}

// Rows per launch: about a quarter million pixels, at least one row.
int rowsPerBand(const LevelPassArgs &a) {
    if (bandRows > 0) return bandRows;
    return std::max(1, (1 << 18) / std::max(a.iMax, 1));
}

// The CIELab planes of bordered rows [y0, y0 + rows) into lab, shared out
// among nbProc threads.
void labRows(const LevelPassArgs &a, int width, int y0, int rows, int nbProc, float *lab) {
#pragma omp parallel for num_threads(nbProc) schedule(static)
    for (int y = 0; y < rows; y++) {
        const unsigned char *c = a.img->image + (size_t)(y0 + y) * width * 3;
        float *l = lab + (size_t)y * width * 3;
        for (int x = 0; x < width; x++, c += 3, l += 3) {
            const LABData &v = labLUT[c[0]][c[1]][c[2]];
            l[0] = v.l;
            l[1] = v.a;
            l[2] = v.b;
        }
    }
}

// Whether the level's whole bordered input, and its CIELab planes, go to
// device s at once (else band by band, each band with the rows its windows
// reach). On level 2 of a 12 MP picture a band of 65 rows reaches some 2300:
// band by band, every input row went up and had its CIELab planes made 36
// times over (an H100 took 1.3 s on such a colour level, against 73 ms on
// level 1). A CPU device's memory is the host's, whose peak the bands keep
// at a band's worth; elsewhere the whole input is taken where each buffer is
// allowed and both together fill at most a quarter of the device.
bool wholeInput(const DeviceState &s, const LevelPassArgs &a, bool colour) {
    if (inputLayout != 0) return inputLayout == 2;
    if (s.isCpu) return false;
    const int b = a.img->borderWidth;
    const cl_ulong pixels = (cl_ulong)(a.iMax + 2 * b) * (cl_ulong)(a.jMax + 2 * b);
    const cl_ulong samples = pixels * a.spp, planes = colour ? pixels * 3 * sizeof(float) : 0;
    return samples <= s.maxAlloc && planes <= s.maxAlloc && samples + planes <= s.globalMemory / 4;
}

// The level's rows on device s, band by band into a.imgOutput. The host
// holds at most a band's worth of CIELab planes: with the whole input on the
// device they go up in pieces of that size before the first band.
void runRows(DeviceState &s, const LevelPassArgs &a, int nbProc) {
    const int b = a.img->borderWidth;
    const int width = a.iMax + 2 * b;
    const int nN = a.numKernelEntries, nF = a.levelGaussOnly ? 0 : a.numFineKernelEntries;

    std::vector<cl_int> pos(2 * (size_t)(nN + nF));
    std::vector<float> factor((size_t)(nN + nF));
    for (int e = 0; e < nN + nF; e++) {
        const KernelEntry &k = e < nN ? a.spatialKernel[e] : a.spatialKernelFine[e - nN];
        pos[2 * e] = k.xpos;
        pos[2 * e + 1] = k.ypos;
        factor[e] = k.factor;
    }
    const int band = std::min(rowsPerBand(a), a.jMax);
    // A band's windows reach 2b rows below its last.
    const int bandReach = band + 2 * b, allRows = a.jMax + 2 * b;
    const size_t bandPixels = (size_t)width * bandReach;
    const bool colour = a.spp == 3 && !a.levelGaussOnly;
    const bool whole = wholeInput(s, a, colour);
    const size_t inputPixels = whole ? (size_t)width * allRows : bandPixels;
    std::vector<float> lab(colour ? 3 * bandPixels : 0);
    const bool useMap = !a.levelGaussOnly && levelUsesBrightMap(a);
    const std::vector<int> period = periods();

    Buffer img, labBuf, posBuf, factorBuf, lut, map, periodBuf, out;
    const cl_mem_flags in = CL_MEM_READ_ONLY;
    img.make(s.context, in, inputPixels * a.spp, nullptr);
    labBuf.make(s.context, in, colour ? 3 * inputPixels * sizeof(float) : 0, nullptr);
    posBuf.make(s.context, in, pos.size() * sizeof(cl_int), pos.data());
    factorBuf.make(s.context, in, factor.size() * sizeof(float), factor.data());
    lut.make(s.context, in, a.levelGaussOnly ? 0 : EXP_LUT_ENTRIES * sizeof(float),
             a.levelGaussOnly ? nullptr : a.expLut);
    map.make(s.context, in, useMap ? (size_t)a.iMax * a.jMax : 0,
             useMap ? a.brightImage : nullptr);
    periodBuf.make(s.context, in, period.size() * sizeof(cl_int), period.data());
    const size_t rowBytes = (size_t)a.iMax * a.spp;
    out.make(s.context, CL_MEM_WRITE_ONLY, rowBytes * band, nullptr);
    if (whole) {
        check(clEnqueueWriteBuffer(s.queue, img.mem, CL_FALSE, 0, inputPixels * a.spp,
                                   a.img->image, 0, nullptr, nullptr),
              "clEnqueueWriteBuffer");
        if (colour)  // blocking: the next piece reuses the host's planes
            for (int y0 = 0; y0 < allRows; y0 += bandReach) {
                const int n = std::min(bandReach, allRows - y0);
                labRows(a, width, y0, n, nbProc, lab.data());
                check(clEnqueueWriteBuffer(s.queue, labBuf.mem, CL_TRUE,
                                           (size_t)y0 * width * 3 * sizeof(float),
                                           (size_t)n * width * 3 * sizeof(float), lab.data(), 0,
                                           nullptr, nullptr),
                      "clEnqueueWriteBuffer");
            }
    }

    const cl_int ers = width * a.spp, spp = a.spp, iMax = a.iMax, numNormal = nN,
                 numFine = nF, mapOn = useMap, gauss = a.levelGaussOnly,
                 copyOffset = a.largestHalfKernelSize, perturb = perturbBytes;
    cl_kernel k = s.kernel;
    int arg = 0;
    auto set = [&](size_t size, const void *value) {
        check(clSetKernelArg(k, arg++, size, value), "clSetKernelArg");
    };
    set(sizeof(cl_mem), &img.mem);
    set(sizeof(cl_mem), &labBuf.mem);
    set(sizeof ers, &ers);
    set(sizeof spp, &spp);
    set(sizeof iMax, &iMax);
    const int bandArgs = arg;  // j0, rows and the input's first row, set per band
    arg += 3;
    set(sizeof(cl_mem), &posBuf.mem);
    set(sizeof(cl_mem), &factorBuf.mem);
    set(sizeof numNormal, &numNormal);
    set(sizeof numFine, &numFine);
    set(sizeof(cl_mem), &lut.mem);
    set(sizeof(cl_mem), &map.mem);
    set(sizeof(cl_mem), &periodBuf.mem);
    set(sizeof mapOn, &mapOn);
    set(sizeof gauss, &gauss);
    set(sizeof copyOffset, &copyOffset);
    set(sizeof(cl_mem), &out.mem);
    set(sizeof perturb, &perturb);

    // Work-groups of 32 x 4 pixels where the device allows them; a row's
    // end, or a band's, can fall inside one.
    size_t groupLimit = 0;
    clGetKernelWorkGroupInfo(k, s.id, CL_KERNEL_WORK_GROUP_SIZE, sizeof groupLimit, &groupLimit,
                             nullptr);
    const size_t local[2] = {32, 4};
    const bool shaped = groupLimit >= local[0] * local[1];
    for (int j0 = 0; j0 < a.jMax; j0 += band) {
        if (j0 > 0 && pollCallback != nullptr) {
            int cancel = 0;
            pollCallback(&cancel, *pollAmount);
            if (cancel != 0) {
                cancelled = true;
                return;
            }
        }
        const cl_int first = j0, rows = std::min(band, a.jMax - j0), inputRow0 = whole ? 0 : j0;
        if (!whole) {
            const size_t reach = (size_t)width * (rows + 2 * b);
            check(clEnqueueWriteBuffer(s.queue, img.mem, CL_FALSE, 0, reach * a.spp,
                                       a.img->image + (size_t)j0 * width * a.spp, 0, nullptr,
                                       nullptr),
                  "clEnqueueWriteBuffer");
            if (colour) {
                labRows(a, width, j0, rows + 2 * b, nbProc, lab.data());
                check(clEnqueueWriteBuffer(s.queue, labBuf.mem, CL_FALSE, 0,
                                           3 * reach * sizeof(float), lab.data(), 0, nullptr,
                                           nullptr),
                      "clEnqueueWriteBuffer");
            }
        }
        check(clSetKernelArg(k, bandArgs, sizeof first, &first), "clSetKernelArg");
        check(clSetKernelArg(k, bandArgs + 1, sizeof rows, &rows), "clSetKernelArg");
        check(clSetKernelArg(k, bandArgs + 2, sizeof inputRow0, &inputRow0), "clSetKernelArg");
        const size_t global[2] = {(a.iMax + local[0] - 1) / local[0] * local[0],
                                  (rows + local[1] - 1) / local[1] * local[1]};
        for (int d = 0; d < driverDraws; d++) (void)std::rand();
        if (failAtLaunch > 0 && --failAtLaunch == 0)
            throw ClError{"clEnqueueNDRangeKernel", CL_OUT_OF_RESOURCES};
        check(clEnqueueNDRangeKernel(s.queue, k, 2, nullptr, global, shaped ? local : nullptr, 0,
                                     nullptr, nullptr),
              "clEnqueueNDRangeKernel");
        check(clEnqueueReadBuffer(s.queue, out.mem, CL_TRUE, 0, rowBytes * rows,
                                  a.imgOutput + (size_t)j0 * rowBytes, 0, nullptr, nullptr),
              "clEnqueueReadBuffer");
    }
}

// A small level of every kind the fusion uses, on the device and on the
// CPU: colour and one sample; level 1, a gauss-only level, and level 2
// under a map of every bright value (copied, normal and fine pixels). The
// 13 x 13 window gives sums long enough that a contracted multiply-add
// shows: on PoCL a kernel built with FP_CONTRACT ON is refused (a 5 x 5
// window let it pass).
bool sameBytesAsCpu(DeviceState &s) {
    const int iMax = 37, jMax = 9, b = 6;
    uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return seed >> 8;
    };
    auto kernel = [&](int keep) {
        std::vector<KernelEntry> k;
        for (int x = 0; x <= 2 * b; x++)
            for (int y = 0; y <= 2 * b; y++)
                if ((int)(next() % 100) < keep || (x == b && y == b))
                    k.push_back({x, y, (float)(next() % 1000) / 700.0f / 12.0f, 0, 0, 0});
        return k;
    };
    std::vector<KernelEntry> normal = kernel(50), fine = kernel(90);
    std::vector<float> lut(EXP_LUT_ENTRIES);
    for (float &v : lut) v = (float)(next() % 1000000) / 1e6f;
    lut[7] = 1e-40f;
    std::vector<unsigned char> map((size_t)iMax * jMax);
    for (size_t n = 0; n < map.size(); n++) map[n] = (unsigned char)(n * 37 % 256);
    for (int spp : {1, 3}) {
        std::vector<unsigned char> picture((size_t)iMax * jMax * spp);
        for (auto &v : picture) v = (unsigned char)(next() % 256);
        ImageWithBorder img{.inputImage = picture.data(), .borderWidth = b,
                            .mainImageHasBorders = 1};
        if (createOutsideImageBorders(iMax, jMax, spp, 8, &img) == -4) return false;
        struct Borders {
            ImageWithBorder *img;
            ~Borders() { freeOutsideImageBorders(img); }
        } borders{&img};
        for (int kind = 0; kind < 3; kind++) {
            LevelPassArgs a = selfGuidedLevel(img, iMax, jMax, spp, b, normal, fine, lut.data(), map.data());
            a.level = kind == 2 ? 2 : 1;
            a.levelGaussOnly = kind == 1;
            std::vector<unsigned char> cpu(picture.size()), gpu(picture.size(), 0xA5);
            a.imgOutput = cpu.data();
            referenceRows(a);
            a.imgOutput = gpu.data();
            runRows(s, a, 1);
            if (cpu != gpu) return false;
        }
    }
    return true;
}

// A stand-in CIELab table while the real one is not filled (a check before
// the first fusion): every red and green share one row of made-up values.
// The device reads the planes the host makes from the table, so any table
// checks the arithmetic.
struct StandInLab {
    std::vector<LABData> row = std::vector<LABData>(256);
    std::vector<LABData *> greens = std::vector<LABData *>(256, nullptr);
    std::vector<LABData **> reds = std::vector<LABData **>(256, nullptr);
    StandInLab() {
        for (int v = 0; v < 256; v++) row[v] = {v * 0.39f, v * 1.3f - 160.0f, 90.0f - v * 0.7f};
        std::fill(greens.begin(), greens.end(), row.data());
        std::fill(reds.begin(), reds.end(), greens.data());
    }
};

bool checkDevice(DeviceState &s) {
    if (labLUT != nullptr) return sameBytesAsCpu(s);
    StandInLab standIn;
    labLUT = standIn.reds.data();
    bool same = false;
    try {
        same = sameBytesAsCpu(s);
    } catch (...) {
        labLUT = nullptr;
        throw;
    }
    labLUT = nullptr;
    return same;
}

// The chosen device, built and checked; null when the CPU must filter.
DeviceState *usableDevice() {
    if (chosen < 0 || chosen >= (int)states.size()) return nullptr;
    DeviceState &s = states[chosen];
    if (s.failed || s.check == DeviceState::Check::Refused) return nullptr;
    if (s.check == DeviceState::Check::NotYet) {
        KeepHostState keep;
        try {
            build(s);
            const bool same = checkDevice(s);
            s.check = same ? DeviceState::Check::Passed : DeviceState::Check::Refused;
            if (!same)
                std::fprintf(stderr,
                             "lumora: OpenCL device \"%s\" refused: its level pass differs "
                             "from the CPU's\n",
                             s.name.c_str());
        } catch (const Unfit &u) {
            s.check = DeviceState::Check::Refused;
            std::fprintf(stderr, "lumora: OpenCL device \"%s\" refused: %s\n", s.name.c_str(),
                         u.why);
        } catch (const ClError &e) {
            s.check = DeviceState::Check::Refused;
            std::fprintf(stderr, "lumora: OpenCL device \"%s\" refused: %s failed (%d)\n",
                         s.name.c_str(), e.call, (int)e.code);
        }
    }
    return s.check == DeviceState::Check::Passed ? &s : nullptr;
}

void enumerate() {
    if (!states.empty()) return;
    KeepHostState keep;
    for (cl_device_id id : allDevices()) {
        states.emplace_back();
        states.back().id = id;
        states.back().name = nameOf(id);
        states.back().isCpu = isCpu(id);
    }
}

}  // namespace

std::vector<std::string> deviceNames() {
    std::lock_guard<std::mutex> lock(deviceMutex);
    enumerate();
    std::vector<std::string> names;
    for (const DeviceState &s : states) names.push_back(s.name);
    return names;
}

bool deviceIsCpu(int index) {
    std::lock_guard<std::mutex> lock(deviceMutex);
    enumerate();
    // Asked of OpenCL once, in enumerate: no call into the driver here, so a
    // host thread choosing a device cannot swap rand()'s state under a fusion
    // running on another.
    return index >= 0 && index < (int)states.size() && states[index].isCpu;
}

bool selectDevice(int index) {
    std::lock_guard<std::mutex> lock(deviceMutex);
    if (index == -1) {  // the CPU: no need to start OpenCL
        chosen = -1;
        return true;
    }
    enumerate();
    if (index < -1 || index >= (int)states.size()) return false;
    chosen = index;
    // Chosen again, a device is checked again and an earlier failure forgotten.
    if (index >= 0) {
        states[index].check = DeviceState::Check::NotYet;
        states[index].failed = false;
    }
    return true;
}

int selectedDevice() {
    std::lock_guard<std::mutex> lock(deviceMutex);
    return chosen;
}

bool selectedDevicePasses() {
    std::lock_guard<std::mutex> lock(deviceMutex);
    return usableDevice() != nullptr;
}

std::string lastLevelDevice() {
    std::lock_guard<std::mutex> lock(deviceMutex);
    return lastDevice;
}

bool levelRows(const LevelPassArgs &a, int nbProc) {
    std::lock_guard<std::mutex> lock(deviceMutex);
    lastDevice = "CPU";
    if (chosen < 0 || !covers(a)) return false;
    // Cancelled: the fusion ends at its next report, whatever this level holds.
    if (cancelled) return true;
    DeviceState *s = usableDevice();
    if (s == nullptr) return false;
    KeepHostState keep;
    try {
        runRows(*s, a, nbProc);
    } catch (const std::bad_alloc &) {
        // The host's band buffers: the CPU pass needs less.
        return false;
    } catch (const ClError &e) {
        s->failed = true;
        std::fprintf(stderr,
                     "lumora: OpenCL device \"%s\" failed (%s: %d): the CPU filters from here\n",
                     s->name.c_str(), e.call, (int)e.code);
        return false;
    }
    lastDevice = s->name;
    return true;
}

#endif

}  // namespace device
}  // namespace lumora
