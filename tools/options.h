// options.h: the command line of lumora-fuse.
#pragma once

#include <string>
#include <vector>

#include "image_io.h"

namespace lumora_fuse {

// The nine fusion parameters, in the library's order.
enum FusionParam {
    kStrength = 0,
    kSharpness,
    kSaturation,
    kStartRadius,
    kRadiusGrowth,
    kSpatialSigma,
    kRangeSigma,
    kPreserveHighlights,
    kHighlightInfluence,
    kFusionParamCount
};

// Smallest side the fusion library is handed. Below 26 pixels a side its
// filter kernels lose their centre pixel and its checks can stop it, so a
// narrower picture (or loupe region) is extended by mirroring first (see
// fusion_call.h).
constexpr int kMinImageSide = 32;
// Largest --strength allowed together with a --highlight-influence below 10.
constexpr float kMaxStrengthWithInfluence = 19.0f;
// Upper bound of --threads.
constexpr int kMaxThreads = 256;
// --device: auto and cpu; opencl:N is N. The library's own numbers
// (LumoraDevice.h).
constexpr int kDeviceAuto = -3;
constexpr int kDeviceCpu = -1;

// How one numeric fusion parameter appears on the command line.
struct ParamSpec {
    const char *option;  // long option name without the dashes
    FusionParam index;
    double min, max;
    bool minExclusive;   // the range is (min, max] rather than [min, max]
    bool integer;        // only whole numbers
    const char *help;    // what it does
    const char *limit;   // why the range stops where it does
    const char *extra;   // a further condition, or null
};
extern const ParamSpec kParamSpecs[];
extern const int kParamSpecCount;

// A named set of all the fusion parameters (--look); options given beside it
// override its values.
struct Look {
    const char *name;
    const char *purpose;  // what it is for, in --help
    bool library;         // the library's own defaults, read from it at run time
    float params[kFusionParamCount];  // unless library
};
extern const Look kLooks[];
extern const int kLookCount;
// The tool's default look, chosen by measurement (bench/look_search.py).
constexpr const char *kDefaultLook = "natural";

struct Loupe {
    bool enabled = false;
    int x = 0, y = 0, width = 0, height = 0;
};

struct Options {
    std::vector<std::string> images;
    std::string output;
    FileFormat outputFormat = FileFormat::Unknown;
    std::string look = kDefaultLook;
    float params[kFusionParamCount] = {};  // the look's values unless set
    bool paramGiven[kFusionParamCount] = {};  // set by an option of its own
    int threads = 0;                       // 0: one per available core
    int device = kDeviceAuto;              // where the filter runs: kDeviceAuto, kDeviceCpu or an OpenCL device
    Loupe loupe;
    int quality = 95;
    int depth = 8;
    bool align = false;  // register the frames to the middle one before fusing
    bool deghost = false;      // make the frames agree where the scene moved (after --align)
    std::string deghostRef;    // --deghost-ref: the frame the others are made to agree with
    std::string deghostMasks;  // --deghost-masks: the folder for each frame's mask
    bool quiet = false;
    bool verbose = false;
    std::vector<std::string> frames;  // --frames: the ones to fuse, as given
    std::vector<std::string> bracket;  // every frame, darkest first, when the images were picked out of more
    std::string metadataFrom;         // --metadata-from: the file whose metadata the output gets
    // --batch: images are files and folders, output is the output folder.
    bool batch = false;
    int group = 0;  // --group: frames per bracket in name order; 0 by their metadata
    bool overwrite = false;
    std::string report;  // --report: the JSON summary's file
};

// Result of parseOptions when the tool should go on and fuse.
constexpr int kContinue = -1;

// Parses the command line into options. Returns kContinue to go on, 0 when
// --help or --version was asked (message holds the text for the standard
// output), or 2 for a usage error (message holds one line, without the
// program name prefix). Never prints and never exits.
int parseOptions(int argc, const char *const *argv, Options &options, std::string &message);

// The look and every fusion parameter used, as one line for --verbose and
// the batch report: "natural, --strength given: --strength 20 --sharpness 2
// ... --preserve-highlights --highlight-influence 10".
std::string lookLine(const Options &options);

// --list-devices: one line per OpenCL device ("opencl:N  name"), or one
// line saying there is none.
std::string deviceListText();

// The --help text (with the default look's values).
std::string helpText();
std::string versionText();

}  // namespace lumora_fuse
