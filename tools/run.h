// run.h: one run of lumora-fuse, as a function.
//
// The command line, the batch (one run per bracket), the tests and other
// front ends all fuse through these, and learn what happened from the
// outcome they return: nothing comes back through global state.
#pragma once

#include <string>
#include <vector>

#include "fusion_child.h"
#include "image_io.h"
#include "options.h"

namespace lumora_fuse {

// What a run did.
struct RunOutcome {
    int status = 0;                  // exit status: 0, 1 failure, 2 usage error, 130 cancelled
    std::string lastLine;            // the last line said (why, when status is not 0)
    std::string alignment = "none";  // what the alignment did, as its line says it
    std::string deghost = "none";    // what deghosting did, as its line says it
    std::string device;              // what filtered: an OpenCL device's name or "CPU"; empty unless fused
};

// Reads (unless decoded holds the frames already, read and checked), crops
// transparent edges, aligns or checks the alignment, fuses and writes one
// bracket: options.images are its two or three frames, in any order, and
// options.output its file. Says every line on the console. The fusion runs
// in a process of its own, or in this one when inProcess is set (see
// fuseHere in fusion_child.h).
RunOutcome fuseBracket(const Options &options, std::vector<Image> decoded = {}, bool inProcess = false);

// The fusion of exposures (darkest first) over region with the options'
// parameters, depth and threads (options.threads, or one per available
// core), its commentary kept unless verbose.
FusionRun fusionRunOf(const Options &options, const std::vector<const Image *> &exposures, const Loupe &region);

// The whole tool after its options are parsed: checks common to every run,
// then the batch, or the frame choice and fuseBracket.
RunOutcome runTool(Options options);

}  // namespace lumora_fuse
