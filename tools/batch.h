// batch.h: lumora-fuse --batch, the brackets of whole folders fused one
// after the other.
#pragma once

#include <string>
#include <vector>

#include "frames.h"
#include "options.h"

namespace lumora_fuse {

// The frames of one bracket, in capture (or name) order.
using BracketFrames = std::vector<FrameInfo>;

// Brackets of frames: by count in name order when group > 0; otherwise by
// capture time, a new bracket starting after a gap of more than 5 seconds
// between one frame's end and the next one's start, or where an exposure
// repeats within the bracket. Returns kContinue, or 2 with a message when a
// frame records no capture time and group is 0.
int groupBrackets(int group, std::vector<FrameInfo> frames, std::vector<BracketFrames> &brackets,
                  std::string &error);

// Gathers the files (a folder's JPEG, PNG and TIFF files, not *_fused.*),
// groups them into brackets and fuses each into the output folder. Returns 0
// when every bracket was fused or skipped, 1 when any failed, 2 on a usage
// error, 130 when cancelled.
int runBatch(const Options &options);

}  // namespace lumora_fuse
