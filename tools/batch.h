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

// One bracket of a batch, as the report gives it.
struct BatchBracket {
    std::vector<FrameInfo> frames;
    std::string output;
    std::vector<std::string> chosen;  // the frames fused
    std::string status = "failed", error;  // "fused", "skipped", "failed" or "cancelled"
    std::string alignment = "none";
    std::string deghost = "none";
    std::string device;  // what filtered, once fused
    double seconds = 0;
};

// The batch's plan: makes the output folder, gathers the files (a folder's
// JPEG, PNG and TIFF files, not *_fused.*), makes each unreadable file a
// failed bracket of its own (first), groups the others and names every
// bracket's output; todo holds the brackets to fuse (not those of one frame,
// those whose output another bracket writes, nor, without --overwrite, those
// whose output exists: "skipped"). Says why on the console. Returns kContinue,
// 1 (no output folder) or 2 (usage error).
int planBatch(const Options &options, std::vector<BatchBracket> &brackets, std::vector<size_t> &todo);

// The end of a batch run whose fusions returned status (0, 1 or 130): 1 when
// any bracket failed, and the JSON report written where --report asks.
int finishBatch(const Options &options, const std::vector<BatchBracket> &brackets, int status);

// Gathers the files (a folder's JPEG, PNG and TIFF files, not *_fused.*),
// groups them into brackets and fuses each into the output folder. Returns 0
// when every bracket was fused or skipped, 1 when any failed, 2 on a usage
// error, 130 when cancelled.
int runBatch(const Options &options);

}  // namespace lumora_fuse
