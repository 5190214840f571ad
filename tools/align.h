// align.h: registering the frames of a handheld bracket to one of them.
//
// The frames differ in exposure, so the registration never compares pixel
// values directly, and looks only at pixels well exposed in both frames of a
// pair: a median-threshold bitmap pyramid finds the coarse shift, and an
// enhanced-correlation fit of a rotation and shift on histogram-equalised
// pictures refines it to a fraction of a pixel. A transform is used only when
// it makes the frames' gradients agree clearly better than leaving the frame
// where it is, and only in a bracket where some frame is a pixel or more out
// of line (a handheld one). The frames moved are then
// resampled (bicubic) onto the reference frame's grid and all are cut down to
// the largest rectangle that every one of them covers.
//
// Kept apart from the rest of the run so that every caller (one fusion, or
// many in a batch) aligns its decoded frames alike.
#pragma once

#include <array>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "crop.h"
#include "image_io.h"

namespace lumora_fuse {

// A 2x3 affine map, row-major: (x, y) -> (m[0]x + m[1]y + m[2], m[3]x + m[4]y + m[5]).
using Affine = std::array<double, 6>;

// What became of a frame's registration.
enum class Registration {
    Reference,  // the frame the others were registered to
    Kept,       // the transform found brings the frame in line with the reference
    InLine,     // what was found is no clear gain over the identity: the frame stays as it is
    TooLittle,  // too little is well exposed in both frames to judge by: the frame stays as it is
};

struct AlignSummary {
    int reference = 0;                  // index of the frame the others were registered to
    std::vector<Affine> transforms;     // per frame: its position of each point of the reference frame, as used
    std::vector<Affine> found;          // per frame: what the registration found, used or not
    std::vector<Registration> outcome;  // per frame
    Rect crop;                          // the part of the reference frame's grid kept
    double largestShift = 0;            // pixels, at a corner of the picture, over all frames as used
    double largestAngle = 0;            // degrees, over all frames as used
    int failed = -1;                    // the frame that could not be registered, if any
};

// Frames given besides the fused ones, which the registration goes through:
// neighbours in exposure share the most well-exposed pixels, so each frame
// is registered to its neighbour towards the reference and the transforms
// composed. paths[i] is the file of frames[i]; bracket every file of the
// bracket, darkest first. Empty (or a file that is not among the bracket,
// cannot be read or is of another size): every frame is registered to the
// reference directly.
struct Neighbours {
    std::vector<std::string> paths, bracket;
};

// Estimates, for every frame, where each point of frames[reference] lies in
// it (the reference's own transform is the identity), at pictures of at most
// maxSide pixels a side (0: the full resolution), scaled back to the frames'
// size. Only pixels well exposed in both frames of a pair count; a transform
// is used only when it makes the pair agree clearly better than the identity
// (summary.outcome says which). False, with the index of the first frame that
// cannot be registered (no detail in common with its neighbour, or fewer than
// 16 pixels a side) in summary.failed. between, when given, keeps the
// bracket's frames between the fused ones, decoded by the first call that
// needs them, for the next call on the same frames and neighbours.
bool estimateTransforms(const std::vector<Image> &frames, int reference, int maxSide, const Neighbours &neighbours,
                        AlignSummary &summary, std::vector<Image> *between = nullptr);

// The largest axis-aligned rectangle of the reference grid (width x height)
// whose every pixel maps inside every frame under its transform (or less than
// a tenth of a pixel outside); empty when none does.
Rect commonArea(int width, int height, const std::vector<Affine> &transforms);

// Registers every frame to frames[reference] (at up to 2048 pixels a side,
// scaled back), resamples those whose transform is used onto its grid and
// cuts all of them down to their common area; frames kept as they are stay
// byte for byte. The frames must share one size. False, with a one-line
// message, when a frame cannot be registered (summary.failed tells which) or
// the frames have no area in common once aligned; the frames are then left as
// they were.
bool alignFrames(std::vector<Image> &frames, int reference, AlignSummary &summary, std::string &error,
                 const Neighbours &neighbours = {});

// The line that reports an alignment: for each frame (named as in names)
// what was found and whether it was kept, and the crop of the width x height
// picture.
std::string alignmentLine(const AlignSummary &summary, const std::vector<std::string> &names, int width, int height);

// The threads the registration and resampling may use (0: one per core;
// always one where kForkWithOneThread).
void setAlignmentThreads(int threads);

// A look, by the same registration as alignFrames, at whether aligning
// would help: the largest displacement, in pixels at a corner of the
// picture, of any frame against frames[reference] that alignment would use;
// 0 when it would keep every frame as it is or cannot tell.
double misalignment(const std::vector<Image> &frames, int reference, const Neighbours &neighbours = {});

// Where two grey pictures of one scene at different exposures disagree by
// their median-threshold bitmaps (each thresholded at its median over the
// part of area well exposed in both): 255 where one is above its median and
// the other below, counting only pixels of that part that lie clear of both
// thresholds. Exposure does not change these bitmaps; motion does.
cv::Mat bitmapDisagreement(const cv::Mat &a, const cv::Mat &b, const cv::Mat &area);

}  // namespace lumora_fuse
