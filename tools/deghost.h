// deghost.h: frames of a scene that moved between the exposures made to
// agree before they are fused.
//
// The fusion's arithmetic is fixed, so a ghost can only be taken away in the
// frames it is given: wherever something moved, every frame is made to show
// the reference frame's content at its own exposure. The reference is
// re-exposed by matching cumulative histograms per channel (motion barely
// changes a histogram); a frame's motion mask is where it differs from the
// re-exposed reference by more than its noise explains, tested only where
// both carry detail. Where the reference is clipped or crushed, the other
// frames are compared by median-threshold bitmaps instead, and the area is
// taken from the one of them best exposed there. Masks are opened, closed,
// rid of specks, dilated and feathered; a frame whose mask is empty is left
// byte for byte as it was, so that a static bracket fuses exactly as without.
#pragma once

#include <string>
#include <vector>

#include "image_io.h"

namespace lumora_fuse {

// What deghosting did to each frame.
struct DeghostSummary {
    int reference = 0;
    int width = 0, height = 0;
    // Per frame: the share of its pixels replaced, each counted by its mask
    // (0 to 1; 0 for the reference and for a frame left as it was).
    std::vector<double> replaced;
    // Per frame: width * height opacities of the replacement (255: taken
    // whole from the reference's content); empty when nothing was replaced.
    std::vector<std::vector<unsigned char>> masks;
};

// Makes frames (of one size, the same scene at different exposures) agree
// with frames[reference] wherever the scene moved, as described above.
void deghostFrames(std::vector<Image> &frames, int reference, DeghostSummary &summary);

// The share of the picture, at a low resolution, where some frame disagrees
// with frames[reference] beyond what its exposure and noise explain (after
// the masks' cleaning, before their dilation): the cheap look that suggests
// --deghost.
double motionShare(const std::vector<Image> &frames, int reference);

// Above this share of the picture, the frames are said to disagree.
constexpr double kMotionSuggested = 0.005;

// "deghosted against REF: replaced 3.1% of A, nothing of B", the frames named
// as in names.
std::string deghostLine(const DeghostSummary &summary, const std::vector<std::string> &names);

// Makes the folder for the masks when it is missing and checks that files
// can be made in it; false with "DIR: cannot write the masks: reason".
bool prepareMaskFolder(const std::string &folder, std::string &error);

// Writes each frame's mask (an empty one as black) as FOLDER/STEM_mask.png,
// STEM the frame's file name without folder and extension.
bool writeMasks(const std::string &folder, const DeghostSummary &summary, const std::vector<std::string> &names,
                std::string &error);

}  // namespace lumora_fuse
