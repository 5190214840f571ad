// fusion_call.cpp: the exposures extended, fused in one or two library
// passes, and cropped back.
#include "fusion_call.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace lumora_fuse {
namespace {

// Gives the whole pages inside [data, data + size) back to the system. Their
// contents read as zeros afterwards: only for copies no one reads again. The
// partial pages at the ends stay, with the allocator's bookkeeping beside them.
void releasePages(const unsigned char *data, size_t size) {
    const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t first = (uintptr_t(data) + page - 1) / page * page, end = (uintptr_t(data) + size) / page * page;
    if (end > first)
        madvise(reinterpret_cast<void *>(first), end - first, MADV_DONTNEED);
}

// Reflection about the edge pixel without repeating it (the way the library
// mirrors its own borders), repeated as often as needed; a one-pixel side
// repeats its pixel.
int mirror(int c, int side) {
    if (side == 1)
        return 0;
    const int period = 2 * (side - 1);
    c %= period;
    if (c < 0)
        c += period;
    return c < side ? c : period - c;
}

// One axis of fusionArea. Real neighbouring pixels where the picture has
// them; a picture too small on this side is centred between mirrored strips.
void growSpan(int start, int length, int side, int &areaStart, int &areaLength) {
    areaLength = std::max(length, kMinImageSide);
    if (side >= areaLength)
        areaStart = std::clamp(start - (areaLength - length) / 2, 0, side - areaLength);
    else
        areaStart = -(areaLength - side) / 2;
}

// The library reports each pass from 0 to 1 through a plain function; this
// maps its reports onto the whole job. One fusion runs at a time.
struct PassProgress {
    ProgressCallback forward = nullptr;
    double base = 0.0, span = 1.0;
    bool last = true;
    bool completed = false;  // the pass's final report (1.0) came
    bool cancelled = false;  // the caller asked to stop
};
PassProgress gPass;

void onPassProgress(int *cancel, float amount) {
    if (amount >= 1.0f)
        gPass.completed = true;
    if (!gPass.forward)
        return;
    const float whole = amount >= 1.0f && gPass.last ? 1.0f : float(gPass.base + gPass.span * amount);
    gPass.forward(cancel, whole);
    if (cancel && *cancel)
        gPass.cancelled = true;
}

void startPass(double base, double span, bool last) {
    gPass.base = base;
    gPass.span = span;
    gPass.last = last;
    gPass.completed = false;
}

bool jobValid(const FusionJob &job) {
    const int k = int(job.exposures.size());
    if (k < 2 || k > 3 || !job.params || job.threads < 1 || (job.depth != 8 && job.depth != 16))
        return false;
    const Image &first = *job.exposures[0];
    for (const Image *image : job.exposures)
        if (image->width != first.width || image->height != first.height ||
            image->rgb.size() != size_t(first.width) * first.height * 3)
            return false;
    std::string error;
    if (!fusionSizeAllowed(first.width, first.height, error))
        return false;
    return !job.region.enabled || loupeFits(job.region, first.width, first.height);
}

}  // namespace

std::string loupeProblem(const Loupe &r, int width, int height) {
    const std::string size = std::to_string(r.width) + "x" + std::to_string(r.height);
    if (r.width < 1 || r.height < 1)
        return "--loupe: region " + size + " is empty (W and H must be at least 1)";
    if (!loupeFits(r, width, height))
        return "--loupe: region " + size + " at " + std::to_string(r.x) + "," + std::to_string(r.y) +
               " does not fit in the " + std::to_string(width) + "x" + std::to_string(height) + " picture";
    return "";
}

bool loupeFits(const Loupe &r, int width, int height) {
    return r.enabled && r.x >= 0 && r.y >= 0 && r.width >= 1 && r.height >= 1 && long(r.x) + r.width <= width &&
           long(r.y) + r.height <= height;
}

FusionArea fusionArea(int pictureWidth, int pictureHeight, const Loupe &region) {
    Loupe r = region;
    if (!r.enabled)
        r = Loupe{false, 0, 0, pictureWidth, pictureHeight};
    FusionArea area;
    growSpan(r.x, r.width, pictureWidth, area.x, area.width);
    growSpan(r.y, r.height, pictureHeight, area.y, area.height);
    area.pictureWidth = std::max(pictureWidth, kMinImageSide);
    area.pictureHeight = std::max(pictureHeight, kMinImageSide);
    return area;
}

bool fusionSizeAllowed(int width, int height, std::string &error) {
    if (width < 1 || height < 1) {
        error = "the image has no pixels";
        return false;
    }
    const long long w = std::max(width, kMinImageSide), h = std::max(height, kMinImageSide);
    if (w * h > kMaxPixels) {
        error = "image too large to fuse: " + std::to_string(width) + "x" + std::to_string(height) +
                " (sides below " + std::to_string(kMinImageSide) + " pixels are extended to " +
                std::to_string(kMinImageSide) + ", and at most " + std::to_string(kMaxPixels / 1000000) +
                " megapixels can be fused)";
        return false;
    }
    return true;
}

FusionStatus fuseExposures(const FusionJob &job, unsigned char *out) {
    if (!out || !jobValid(job))
        return FusionStatus::Refused;
    const int k = int(job.exposures.size());
    const int pw = job.exposures[0]->width, ph = job.exposures[0]->height;
    Loupe region = job.region;
    if (!region.enabled)
        region = Loupe{false, 0, 0, pw, ph};
    const FusionArea area = fusionArea(pw, ph, job.region);
    const int w = area.width, h = area.height;
    const size_t imageBytes = size_t(w) * h * 3;

    std::vector<unsigned char> sources(imageBytes * k);
    for (int i = 0; i < k; ++i) {
        const Image &image = *job.exposures[i];
        for (int y = 0; y < h; ++y) {
            const unsigned char *row = image.rgb.data() + size_t(mirror(area.y + y, ph)) * pw * 3;
            unsigned char *to = sources.data() + i * imageBytes + size_t(y) * w * 3;
            if (area.x >= 0 && area.x + w <= pw) {
                memcpy(to, row + size_t(area.x) * 3, size_t(w) * 3);
                continue;
            }
            for (int x = 0; x < w; ++x)
                memcpy(to + size_t(x) * 3, row + size_t(mirror(area.x + x, pw)) * 3, 3);
        }
        if (job.releaseExposures)
            releasePages(image.rgb.data(), image.rgb.size());
    }

    // The library writes straight into out unless the area had to grow.
    const bool grown = w != region.width || h != region.height;
    const size_t sampleBytes = size_t(job.depth / 8);
    std::vector<unsigned char> fused(grown ? imageBytes * sampleBytes : 0);
    unsigned char *result = grown ? fused.data() : out;

    // The device is chosen here, in the process that fuses: OpenCL is never
    // started in a process that forks afterwards.
    const bool deviceMissing = lumora_use_device(job.device) == -2;
    if (deviceMissing)
        lumora_use_device(-1);
    const bool preserve = int(job.params[kPreserveHighlights]) != 0;
    optim_param_struct optim{};
    optim.nbProc = job.threads;
    float params[kFusionParamCount];
    gPass = PassProgress();
    gPass.forward = job.progress;
    // Progress shares, roughly by the number of pyramid runs of each pass.
    const double first = 2.0 * k + 1, second = preserve ? 6.0 : 0.0;

    std::vector<unsigned char> firstPass(preserve ? imageBytes : 0);
    std::copy(job.params, job.params + kFusionParamCount, params);
    params[kPreserveHighlights] = 0.0f;
    startPass(0.0, first / (first + second), !preserve);
    int status = hx_fusion2(optim, params, k, w, h, area.pictureWidth, area.pictureHeight, w * 3, 0, 3, 8,
                            preserve ? 8 : job.depth, 8, sources.data(), sources.data(), nullptr,
                            preserve ? firstPass.data() : result, onPassProgress);
    if (preserve && status >= 0 && gPass.completed && !gPass.cancelled) {
        std::copy(job.params, job.params + kFusionParamCount, params);
        startPass(gPass.span, 1.0 - gPass.span, true);
        unsigned char *dark = sources.data();  // image 0: the darkest exposure
        if (job.region.enabled)
            status = hx_combi_realistic_loupe(optim, params, w, h, area.pictureWidth, area.pictureHeight, w * 3,
                                              0, 3, 8, job.depth, 8, firstPass.data(), dark, result,
                                              onPassProgress);
        else
            status = hx_combi_realistic(optim, params, w, h, w * 3, 0, 3, 8, job.depth, 8, firstPass.data(),
                                        dark, result, onPassProgress);
    }
    const bool done = gPass.completed && !gPass.cancelled;
    gPass = PassProgress();
    if (job.fusedOn) {
        if (deviceMissing)
            snprintf(job.fusedOn, kDeviceNameBytes, "CPU (no OpenCL device opencl:%d)", job.device);
        else
            snprintf(job.fusedOn, kDeviceNameBytes, "%s", lumora_last_device());
    }
    if (status < 0)
        return FusionStatus::Refused;
    if (!done)
        return FusionStatus::Stopped;
    if (grown) {
        const size_t rowBytes = size_t(region.width) * 3 * sampleBytes;
        const int dx = region.x - area.x, dy = region.y - area.y;
        for (int y = 0; y < region.height; ++y)
            memcpy(out + y * rowBytes, fused.data() + ((size_t(dy) + y) * w + dx) * 3 * sampleBytes, rowBytes);
    }
    return FusionStatus::Done;
}

}  // namespace lumora_fuse
