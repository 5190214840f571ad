// fusion_child.h: the fusion run in a process of its own.
//
// Should the library stop its process on one of its internal checks, the
// tool survives to say so and to clean up. The result comes back through
// shared memory; the library's commentary is kept in a memory file unless
// the user asked to see it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "fusion_call.h"
#include "image_io.h"
#include "options.h"
#include "progress_bar.h"

namespace lumora_fuse {

// Builds with AddressSanitizer: GCC's runtime does not hold its allocator's
// locks across fork, so a thread inside malloc or free when the fusion's
// process is forked leaves that process's allocator locked for good (it hung
// in its first thread's start). Such builds keep every other thread idle at
// the fork: the registration runs on one thread, and a batch decodes its next
// bracket only after the fusion. glibc's malloc holds its locks across fork,
// so ordinary builds need neither.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kForkWithOneThread = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kForkWithOneThread = true;
#else
inline constexpr bool kForkWithOneThread = false;
#endif
#else
inline constexpr bool kForkWithOneThread = false;
#endif

struct FusionRun {
    const std::vector<const Image *> *exposures = nullptr;  // darkest first
    Loupe region;                                           // the part to fuse (whole picture if not enabled)
    const float *params = nullptr;
    int threads = 1;
    int depth = 8;
    int device = -1;                // lumora_use_device's argument, applied in the fusing process
                                    // (fuseInChild settles auto once first, in a process of its own)
    bool captureCommentary = true;  // keep the library's commentary off the terminal
    ProgressBar *bar = nullptr;     // drawn by the fusion process, if given
    // fuseHere only: called with the fraction done, may set *cancel.
    ProgressCallback progress = nullptr;
};

enum class FusionResult { Done, Cancelled, Failed };

// The result, in memory shared with the fusion process.
struct SharedBuffer {
    unsigned char *data = nullptr;
    size_t size = 0;
    // What filtered, written by the fusing process (kDeviceNameBytes, after
    // the pixels in the same shared memory).
    char *fusedOn = nullptr;
    SharedBuffer() = default;
    SharedBuffer(const SharedBuffer &) = delete;
    SharedBuffer &operator=(const SharedBuffer &) = delete;
    ~SharedBuffer();
};

// Fuses in a child process into out (region.width x region.height RGB pixels
// of depth / 8 bytes a sample). A cancellation requested before or during the
// run is passed on to the child. Failed comes with a one-line message.
FusionResult fuseInChild(const FusionRun &run, SharedBuffer &out, std::string &error);

// The same fusion in this process, for callers that cannot fork (an
// interpreter with threads of its own): the library's commentary is held in
// the memory file meanwhile unless run.captureCommentary is off, and a
// cancellation comes through run.progress or a cancel request. One at a time.
FusionResult fuseHere(const FusionRun &run, SharedBuffer &out, std::string &error);

// Async-signal-safe: sends sig to the fusion process, if one runs.
void signalFusionChild(int sig);

}  // namespace lumora_fuse
