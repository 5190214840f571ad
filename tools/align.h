// align.h: registering the frames of a handheld bracket to one of them.
//
// The frames differ in exposure, so the registration never compares pixel
// values directly: a median-threshold bitmap pyramid finds the coarse shift,
// and an enhanced-correlation fit of a rotation and shift on
// histogram-equalised pictures refines it to a fraction of a pixel. Every
// frame is then resampled (bicubic) onto the reference frame's grid and all
// are cut down to the largest rectangle that every one of them covers.
//
// Kept apart from the rest of the run so that every caller (one fusion, or
// many in a batch) aligns its decoded frames alike.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "crop.h"
#include "image_io.h"

namespace lumora_fuse {

// A 2x3 affine map, row-major: (x, y) -> (m[0]x + m[1]y + m[2], m[3]x + m[4]y + m[5]).
using Affine = std::array<double, 6>;

struct AlignSummary {
    int reference = 0;               // index of the frame the others were registered to
    std::vector<Affine> transforms;  // per frame: its position of each point of the reference frame
    Rect crop;                       // the part of the reference frame's grid kept
    double largestShift = 0;         // pixels, at a corner of the picture, over all frames
    double largestAngle = 0;         // degrees, over all frames
    int failed = -1;                 // the frame that could not be registered, if any
};

// Estimates, for every frame, where each point of frames[reference] lies in
// it (the reference's own transform is the identity). Works on pictures of at
// most maxSide pixels a side (0: the full resolution), scaled back to the
// frames' size. False, with the index of the first frame that cannot be
// registered (too little in common with the reference, or too little detail,
// or fewer than 16 pixels a side) in failed.
bool estimateTransforms(const std::vector<Image> &frames, int reference, int maxSide, std::vector<Affine> &transforms,
                        int &failed);

// The largest axis-aligned rectangle of the reference grid (width x height)
// whose every pixel maps inside every frame under its transform (or less than
// a tenth of a pixel outside); empty when none does.
Rect commonArea(int width, int height, const std::vector<Affine> &transforms);

// Registers every frame to frames[reference] (at up to 2048 pixels a side,
// scaled back), resamples the others onto its grid and cuts all of them down
// to their common area. The frames must share
// one size. False, with a one-line message, when a frame cannot be registered
// (summary.failed tells which) or the frames have no area in common once
// aligned; the frames are then left as they were.
bool alignFrames(std::vector<Image> &frames, int reference, AlignSummary &summary, std::string &error);

// The threads the registration and resampling may use (by default one per
// core).
void setAlignmentThreads(int threads);

// A quick look at whether the frames are misaligned: the largest
// displacement, in pixels at a corner of the picture, of any frame against
// frames[reference], estimated at low resolution; 0 when it cannot tell.
double misalignment(const std::vector<Image> &frames, int reference);

}  // namespace lumora_fuse
