// batch.h: lumora-fuse --batch, the brackets of whole folders fused one
// after the other.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "image_io.h"
#include "options.h"

namespace lumora_fuse {

// What the batch needs of the tool's single run.
struct BatchHooks {
    std::function<void(const std::string &line)> say;         // one line on the error stream
    std::function<int(const std::string &line)> usageError;   // the same, for a usage error; returns 2
    // Fuses one bracket: options.images are its 2 or 3 frames and output its
    // file; decoded holds their pixels, or is empty when they are still to be
    // read. Returns 0 or the exit status of a single run, having said why.
    std::function<int(const Options &options, std::vector<Image> &decoded)> fuse;
    std::function<std::string()> lastLine;  // the last line said, for the report
    std::function<std::string()> alignment;  // what the last fusion's alignment did ("none")
    // Whether width x height frames of the next bracket, decoded (moreBytes),
    // fit in memory beside the fusion of the bracket about to start.
    std::function<bool(const Options &current, int width, int height, double moreBytes)> roomFor;
};

// Gathers the files (a folder's JPEG, PNG and TIFF files, not *_fused.*),
// groups them into brackets and fuses each into the output folder. Returns 0
// when every bracket was fused or skipped, 1 when any failed, 2 on a usage
// error, 130 when cancelled.
int runBatch(const Options &options, const BatchHooks &hooks);

}  // namespace lumora_fuse
