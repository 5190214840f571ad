// fusion_call.h: how lumora-fuse hands exposures to the fusion library.
//
// The tool, its tests and the fuzzers all fuse through fuseExposures, so that
// what they check is exactly what the tool runs. The picture (or loupe
// region) is extended to at least kMinImageSide pixels a side before the
// library sees it, and the result is cropped back to the size asked for.
#pragma once

#include <string>
#include <vector>

#include "BilateralFilter.h"
#include "LumoraDevice.h"
#include "image_io.h"
#include "options.h"

namespace lumora_fuse {

// The rectangle handed to the library, in picture coordinates. It holds the
// region asked for and is at least kMinImageSide wide and high; parts outside
// the picture are filled by mirroring the picture at its edges.
struct FusionArea {
    int x = 0, y = 0, width = 0, height = 0;
    int pictureWidth = 0, pictureHeight = 0;  // the picture size the library sizes its radii by
};

// Whether an enabled region holds a pixel and lies inside a width x height
// picture.
bool loupeFits(const Loupe &region, int width, int height);
// Why an enabled region does not fit ("--loupe: region ..."), or "".
std::string loupeProblem(const Loupe &region, int width, int height);

// The area fused for region (the whole picture unless region.enabled). The
// region must lie inside the picture and hold at least one pixel.
FusionArea fusionArea(int pictureWidth, int pictureHeight, const Loupe &region);

// False, with a message, when a picture of this size cannot be fused: once
// its narrow sides are extended it would exceed kMaxPixels.
bool fusionSizeAllowed(int width, int height, std::string &error);

struct FusionJob {
    std::vector<const Image *> exposures;  // 2 or 3 of one size, darkest first
    Loupe region;                          // the part to fuse; the whole picture unless enabled
    const float *params = nullptr;         // kFusionParamCount values that parseOptions accepts
    int threads = 1;
    int depth = 8;                         // bits per output sample: 8 or 16
    // Called with the fraction of the whole job (both passes), 1.0 only at its
    // very end; may set *cancel. May be null.
    ProgressCallback progress = nullptr;
    // The exposures' pages may be given back to the system once they are
    // copied for the library: set by a forked fusion process, whose copies
    // are the tool's and are never read or freed again there.
    bool releaseExposures = false;
    int device = -1;                       // lumora_use_device's argument: -1 the CPU
    // Receives what filtered (an OpenCL device's name or "CPU", with why
    // when a device asked for is missing), kDeviceNameBytes at most. May be null.
    char *fusedOn = nullptr;
};

constexpr size_t kDeviceNameBytes = 256;

enum class FusionStatus {
    Done,     // out holds the fused region
    Stopped,  // cancelled through the callback, or the library ran out of memory
    Refused,  // the job was malformed or the library returned an error
};

// Fuses the exposures into out: region.width x region.height (the picture's
// size unless region.enabled) interleaved RGB pixels of depth / 8 bytes per
// sample. Two library passes when params[kPreserveHighlights] is on: the
// exposures fused with the highlight mode off, then that result combined with
// the darkest exposure. Uses the library's process-wide state: one call at a
// time.
FusionStatus fuseExposures(const FusionJob &job, unsigned char *out);

}  // namespace lumora_fuse
