// options.cpp: command-line parsing (CLI11) and the checks that keep every
// value the library receives inside the range it handles.
#include "options.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "BilateralFilter.h"
#include "LumoraDevice.h"
#include "argfile.h"

#ifndef LUMORA_FUSE_VERSION
#define LUMORA_FUSE_VERSION "0.0.0"
#endif

namespace lumora_fuse {

const ParamSpec kParamSpecs[] = {
    {"strength", kStrength, 0, 100, false, false,
     "how strongly well-exposed pixels win over dark and bright ones; 0 averages the exposures",
     "from about 420 the weights of pixels that are black or white in every exposure underflow to "
     "zero and the library stops",
     "above 19 only with --highlight-influence 10 or --no-preserve-highlights"},
    {"sharpness", kSharpness, 0, 20, false, false,
     "boost of fine detail; 0 keeps the detail as it is",
     "a negative boost is ignored, and past 20 the detail only clips", nullptr},
    {"saturation", kSaturation, -10, 10, true, false,
     "colour saturation change: -9.9 nearly grey, 0 unchanged, 10 doubled",
     "at -10 the library skips its colour step altogether, and saturation stops growing past 10",
     nullptr},
    {"start-radius", kStartRadius, 1, 20, false, true,
     "half size of the first filter level in pixels; the library now sizes each level from the "
     "picture, so this changes nothing visible",
     "the library takes a whole number of pixels", nullptr},
    {"radius-growth", kRadiusGrowth, 0, 50, true, false,
     "growth of the filter reach from one level to the next, scaled by the picture size",
     "0 or less means no growth, and past 50 the reach exceeds any picture", nullptr},
    {"spatial-sigma", kSpatialSigma, 0.01, 10, false, false,
     "spatial spread of the filter",
     "0 divides by zero in the spatial weights and crashes the library", nullptr},
    {"range-sigma", kRangeSigma, 0.01, 10, false, false,
     "how different two colours may be and still be smoothed together",
     "0 makes the range weights not a number and the library stops", nullptr},
    {"highlight-influence", kHighlightInfluence, 0, 10, false, false,
     "how far down from white the darkest exposure takes over the highlights: 10 only in the "
     "brightest parts, 0 furthest down",
     "the library's scale runs from 0 to 10", nullptr},
};
const int kParamSpecCount = int(sizeof kParamSpecs / sizeof kParamSpecs[0]);

// In the library's order: strength, sharpness, saturation, start radius,
// radius growth, spatial and range sigma, preserve highlights, highlight
// influence. natural and detail were chosen by bench/look_search.py: the best
// MEF-SSIM less lost highlights and shadows on real brackets, clipping fewer
// pixels than enfuse; detail is its best at the library's spatial sigma.
// natural takes the search's best at half its spatial sigma, and both take a
// third of its saturation (bench/README.md): within 0.003 of it on the
// scenes searched, clearly better on the others, without the wider filter's
// dark backlit areas or the stronger saturation's pink cast on near-white
// surfaces, which buys no structure.
const Look kLooks[] = {
    {"natural", "the default: depth and large-scale contrast, shadows and highlights held", false,
     {37.5f, 1.5f, 1, 3, 3.2f, 1, 0.1f, 0, 10}},
    {"detail", "the library's finer filter: more local detail and texture, flatter large areas, shadows held best",
     false, {30, 2, 1, 3, 5, 0.2f, 0.1f, 0, 10}},
    {"library", "exactly the fusion library's own defaults (the tool's look before looks existed), to compare "
                "byte for byte with a host that calls the library with them",
     true, {}},
};
const int kLookCount = int(sizeof kLooks / sizeof kLooks[0]);

namespace {

std::string number(double v) {
    char buffer[32];
    snprintf(buffer, sizeof buffer, "%g", v);
    return buffer;
}

std::string rangeText(const ParamSpec &param) {
    if (param.minExclusive)
        return "above " + number(param.min) + " up to " + number(param.max);
    return number(param.min) + " to " + number(param.max);
}

bool parseDouble(const std::string &text, double &value) {
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    value = strtod(text.c_str(), &end);
    return end && *end == '\0' && errno == 0 && std::isfinite(value);
}

bool parseInt(const std::string &text, long &value) {
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    value = strtol(text.c_str(), &end, 10);
    return end && *end == '\0' && errno == 0;
}

bool checkParam(const ParamSpec &param, const std::string &text, float &out, std::string &message) {
    const std::string name = std::string("--") + param.option;
    double v = 0;
    long whole = 0;
    if (param.integer ? !parseInt(text, whole) : !parseDouble(text, v)) {
        message = name + ": '" + text + "' is not " + (param.integer ? "a whole number" : "a number") +
                  " (valid: " + rangeText(param) + ")";
        return false;
    }
    if (param.integer)
        v = double(whole);
    const bool below = param.minExclusive ? !(v > param.min) : !(v >= param.min);
    if (below || !(v <= param.max)) {
        message = name + ": " + text + " is out of range (valid: " + rangeText(param) + "; " +
                  param.limit + ")";
        return false;
    }
    out = float(v);
    return true;
}

bool checkWhole(const char *name, const std::string &text, long min, long max, int &out,
                std::string &message) {
    long v = 0;
    if (!parseInt(text, v) || v < min || v > max) {
        message = std::string(name) + ": '" + text + "' is not valid (a whole number from " +
                  std::to_string(min) + " to " + std::to_string(max) + ")";
        return false;
    }
    out = int(v);
    return true;
}

bool parseLoupe(const std::string &text, Loupe &loupe, std::string &message) {
    long v[4];
    size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        const size_t comma = text.find(',', start);
        const bool last = i == 3;
        if ((comma == std::string::npos) != last ||
            !parseInt(text.substr(start, last ? std::string::npos : comma - start), v[i]) ||
            v[i] < 0 || v[i] > 1000000000) {
            message = "--loupe: '" + text + "' is not X,Y,W,H (four whole numbers, X and Y from 0)";
            return false;
        }
        start = comma + 1;
    }
    loupe.enabled = true;
    loupe.x = int(v[0]);
    loupe.y = int(v[1]);
    loupe.width = int(v[2]);
    loupe.height = int(v[3]);
    return true;
}

const Look *findLook(const std::string &name) {
    for (const Look &look : kLooks)
        if (name == look.name)
            return &look;
    return nullptr;
}

void lookParams(const Look &look, float params[kFusionParamCount]) {
    if (look.library)
        init_realistic_param(params);  // its result carries no meaning
    else
        std::copy(look.params, look.params + kFusionParamCount, params);
}

// One parameter as the option that sets it: "--strength 15", "--preserve-highlights".
std::string paramOption(int index, float value) {
    if (index == kPreserveHighlights)
        return int(value) != 0 ? "--preserve-highlights" : "--no-preserve-highlights";
    for (int i = 0; i < kParamSpecCount; ++i)
        if (kParamSpecs[i].index == index)
            return std::string("--") + kParamSpecs[i].option + " " + number(value);
    return "";
}

// The parameters as options, in --help's order, those picked by given (or all).
std::string paramOptions(const float params[kFusionParamCount], const bool *given = nullptr) {
    std::string out;
    for (int i = 0; i <= kParamSpecCount; ++i) {
        const int index = i < kParamSpecCount ? kParamSpecs[i].index : kPreserveHighlights;
        if (!given || given[index])
            out += (out.empty() ? "" : " ") + paramOption(index, params[index]);
    }
    return out;
}

// One option of --help: the name, then its text wrapped in a column from 29.
std::string wrapped(const std::string &name, const std::string &text) {
    const size_t column = 29, width = 79;
    std::string out = name, line;
    if (out.size() + 1 > column)
        out += "\n" + std::string(column, ' ');
    else
        out.append(column - out.size(), ' ');
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos)
            end = text.size();
        const std::string word = text.substr(start, end - start);
        if (!line.empty() && column + line.size() + 1 + word.size() > width) {
            out += line + "\n" + std::string(column, ' ');
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
        start = end + 1;
    }
    return out + line + "\n";
}

// Options that are valid alone but not together.
bool checkTogether(const Options &options, std::string strengthText, std::string &message) {
    if (options.quiet && options.verbose) {
        message = "--quiet and --verbose exclude each other";
        return false;
    }
    // With the highlight pass weighing the dark exposure down (influence
    // below 10), a stronger weighting lets that pass give the fused image a
    // weight of zero where the dark one's is zeroed too: 0/0, and the library
    // stops. Up to 19 every fused pixel keeps a weight of at least 1/255.
    if (int(options.params[kPreserveHighlights]) != 0 && options.params[kHighlightInfluence] < 10.0f &&
        options.params[kStrength] > kMaxStrengthWithInfluence) {
        if (strengthText.empty())
            strengthText = number(options.params[kStrength]) + " (look " + options.look + ")";
        message = "--strength " + strengthText + ": above " + number(kMaxStrengthWithInfluence) +
                  " only with --highlight-influence 10 or --no-preserve-highlights (the highlight pass would "
                  "leave some pixels with no weight at all)";
        return false;
    }
    return true;
}

// The number of images, and an output whose format is known and holds the depth.
bool checkFiles(Options &options, const std::string &format, std::string &message) {
    if (options.batch) {
        if (options.images.empty()) {
            message = "--batch: no files or folders given (Usage: lumora-fuse --batch [OPTION]... FILE|FOLDER... "
                      "-o FOLDER)";
            return false;
        }
        if (options.output.empty()) {
            message = "no output folder: give one with -o FOLDER";
            return false;
        }
        options.outputFormat = formatFromExtension("." + (format.empty() ? std::string("jpg") : format));
        if (options.outputFormat == FileFormat::Unknown || format.find('.') != std::string::npos) {
            message = "--format: '" + format + "' is not valid (jpg, png or tif)";
            return false;
        }
        if (options.outputFormat == FileFormat::Jpeg && options.depth == 16) {
            message = "--depth 16: JPEG holds 8-bit samples only; use --format png or tif";
            return false;
        }
        return true;
    }
    if (options.images.size() < 2) {
        message = "expected 2 or more images, got " + std::to_string(options.images.size()) +
                  " (Usage: lumora-fuse [OPTION]... IMAGE IMAGE [IMAGE]... -o OUTPUT)";
        return false;
    }
    if (options.output.empty()) {
        message = "no output file: give one with -o OUTPUT";
        return false;
    }
    options.outputFormat = formatFromExtension(options.output);
    if (options.outputFormat == FileFormat::Unknown) {
        message = options.output + ": unknown output format (use .jpg, .jpeg, .png, .tif or .tiff)";
        return false;
    }
    if (options.outputFormat == FileFormat::Jpeg && options.depth == 16) {
        message = options.output + ": JPEG holds 8-bit samples only; use .png or .tif for --depth 16";
        return false;
    }
    return true;
}

// --frames A,B[,C]: two or three names.
bool parseFrames(const std::string &text, std::vector<std::string> &frames, std::string &message) {
    size_t start = 0;
    for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1)
        frames.push_back(text.substr(start, comma - start));
    frames.push_back(text.substr(start));
    if (frames.size() < 2 || frames.size() > 3 ||
        std::any_of(frames.begin(), frames.end(), [](const std::string &f) { return f.empty(); })) {
        message = "--frames: '" + text + "' is not two or three file names separated by commas";
        return false;
    }
    return true;
}

}  // namespace

std::string versionText() {
    return std::string("lumora-fuse (Lumora Fusion) ") + LUMORA_FUSE_VERSION +
           "\nExposure fusion of two or three photographs through a sparse bilateral filter pyramid.\n";
}

std::string lookLine(const Options &options) {
    const std::string given = paramOptions(options.params, options.paramGiven);
    return options.look + (given.empty() ? "" : " (given: " + given + ")") + ": " + paramOptions(options.params);
}

std::string helpText() {
    float d[kFusionParamCount];
    lookParams(*findLook(kDefaultLook), d);
    std::string s =
        "Usage: lumora-fuse [OPTION]... IMAGE IMAGE [IMAGE]... -o OUTPUT\n"
        "  or:  lumora-fuse --batch [OPTION]... FILE|FOLDER... -o FOLDER\n"
        "Fuse exposures of one scene into one natural-looking picture.\n"
        "\n"
        "The exposures may be given in any order: they are sorted by mean brightness,\n"
        "darkest first; of more than three, three are fused (see Frames). Inputs are\n"
        "JPEG, PNG or TIFF; 16-bit, greyscale and palette images are converted to\n"
        "8-bit RGB (each conversion is reported). Inputs with transparent edges (PNG\n"
        "or TIFF alpha) are cut down to the largest rectangle opaque in all of them;\n"
        "alpha that is the same everywhere is dropped. The output format follows\n"
        "OUTPUT's extension: .jpg/.jpeg, .png, .tif/.tiff. EXIF, XMP and the ICC\n"
        "profile of the middle exposure (the brighter of two) are copied into the\n"
        "output. An argument @FILE stands for the lines of FILE, one argument a line\n"
        "(blank lines ignored).\n"
        "\n"
        "Input:\n";
    s += wrapped("      --align", "register every exposure to the middle one (shift and rotation, whatever the exposure "
                                  "difference; through the frames between them when picked out of more) before "
                                  "fusing, move those it brings clearly into line, and cut the result down to the "
                                  "largest rectangle all of them cover; without it, exposures that aligning would "
                                  "move a pixel or more are reported");
    s += wrapped("      --deghost", "where the scene moved between the exposures (people, leaves, waves), make "
                                    "every frame show the reference frame's content at its own exposure, after "
                                    "--align; a static bracket is left as it is; without it, frames that disagree "
                                    "beyond what exposure explains are reported");
    s += wrapped("      --deghost-ref=FRAME", "the reference frame, named as on the command line (default: the "
                                              "middle exposure)");
    s += wrapped("      --deghost-masks=DIR", "write each frame's mask (white: replaced) to DIR/STEM_mask.png, "
                                              "making DIR if missing");
    s += "\nOutput:\n";
    s += wrapped("  -o, --output=FILE",
                 "write the result to FILE (required); it is written whole or not at all, and never over an input "
                 "or a write-protected file");
    s += wrapped("      --depth=8|16", "bits per sample of a PNG or TIFF output (default 8; JPEG is 8-bit only)");
    s += wrapped("      --quality=Q", "JPEG quality, 1 to 100 (default 95)");
    s += wrapped("      --loupe=X,Y,W,H", "fuse only the W x H pixels whose top-left corner is at X,Y, filtered with "
                                          "the radii of the whole picture (a fast preview; the region is fused without what lies "
                                          "around it, so with the natural look's strong large-scale contrast its tones drift "
                                          "from the whole fusion's, and --look detail previews more closely); in the picture "
                                          "as cropped by --align ""or transparent edges");
    s += wrapped("      --metadata-from=FILE", "copy the metadata of FILE (any image file, an input or not) "
                                               "instead of the middle exposure's");
    s += "\nFrames (more than three of one scene):\n";
    s += "  The darkest, the brightest and the one nearest a normal exposure are fused.\n"
         "  Where every frame records its exposure (EXIF exposure time, f-number and\n"
         "  ISO: EV = log2(N^2/t) - log2(ISO/100); or else the exposure bias), normal is\n"
         "  nearest the median of the frames; otherwise every frame is decoded and normal\n"
         "  is the mean brightness nearest mid-grey (118 of 255). One line says which\n"
         "  three were taken and why.\n";
    s += wrapped("      --frames=A,B[,C]", "fuse these two or three of the frames instead, named as on the command "
                                           "line (or the same files by another path)");
    s += "\nBatch (-o names a folder, made if missing):\n";
    s += wrapped("      --batch", "fuse every bracket among the files and folders given (a folder's JPEG, PNG and "
                                  "TIFF files, not its subfolders nor *_fused.* files); the frames are grouped by "
                                  "their EXIF capture time (a new bracket after a gap of more than 5 seconds "
                                  "between one frame's end and the next one's start, or when an exposure repeats); a "
                                  "bracket that fails is reported and the others go on");
    s += wrapped("      --group=N", "group the frames by N in name order instead (2 to 1000; needed when the "
                                    "files record no capture time)");
    s += wrapped("      --format=jpg|png|tif", "format of the outputs, each named after its bracket's middle frame "
                                              "(in capture or name order): STEM_fused.jpg (default jpg)");
    s += wrapped("      --overwrite", "replace existing outputs (by default they are skipped, so that an "
                                      "interrupted batch resumes)");
    s += wrapped("      --report=FILE", "write a JSON summary: per bracket its inputs, output, frames fused, "
                                        "alignment, deghosting, seconds and status (fused, skipped or failed)");
    s += "\nFusion (ranges are what the fusion handles safely):\n";
    s += wrapped("      --look=NAME", std::string("set every fusion parameter below at once; those given beside it "
                                                  "override its values (default ") + kDefaultLook + "):");
    for (const Look &look : kLooks) {
        float p[kFusionParamCount];
        lookParams(look, p);
        bool differs[kFusionParamCount];
        for (int i = 0; i < kFusionParamCount; ++i)
            differs[i] = p[i] != d[i];
        const std::string changes = paramOptions(p, differs);
        s += wrapped(std::string("        ") + look.name,
                     std::string(look.purpose) + (changes.empty() ? "" : " (" + changes + ")"));
    }
    for (int i = 0; i < kParamSpecCount; ++i) {
        const ParamSpec &p = kParamSpecs[i];
        std::string text = std::string(p.help) + " (" + rangeText(p) + ", default " + number(d[p.index]) +
                           (p.extra ? std::string("; ") + p.extra : std::string()) + ")";
        s += wrapped(std::string("      --") + p.option + "=" + (p.integer ? "N" : "X"), text);
    }
    s += std::string("      --preserve-highlights  recover the highlights from the darkest exposure\n") +
         "                             in a second pass (default: " +
         (int(d[kPreserveHighlights]) != 0 ? "on" : "off") + ")\n" +
         "      --no-preserve-highlights\n"
         "                             stop after the first pass\n"
         "\n"
         "Program:\n"
         "      --threads=N            worker threads, 1 to " + std::to_string(kMaxThreads) +
         " (default: one per\n"
         "                             available core)\n"
         "      --device=D             where the filter runs: auto (an OpenCL device\n"
         "                             that is no CPU and gives the CPU's bytes, else\n"
         "                             the CPU), cpu, or opencl:N (default: auto)\n"
         "      --list-devices         list the OpenCL devices and exit\n"
         "  -q, --quiet                no progress bar, no conversion or cropping notes\n"
         "  -v, --verbose              also show the fusion library's commentary\n"
         "  -h, --help                 display this help and exit\n"
         "  -V, --version              output version information and exit\n"
         "\n"
         "Pictures may be as small as 1x1 pixel and at most " + std::to_string(kMaxPixels / 1000000) +
         " megapixels; a side\n"
         "below " + std::to_string(kMinImageSide) + " pixels is extended by mirroring for the fusion and cropped "
         "back.\n"
         "\n"
         "Examples:\n"
         "  lumora-fuse dark.jpg mid.jpg bright.jpg -o fused.jpg\n"
         "  lumora-fuse --strength 25 --saturation 2 a.png b.png -o fused.png\n"
         "  lumora-fuse --depth 16 --no-preserve-highlights a.tif b.tif -o fused.tif\n"
         "  lumora-fuse --loupe 800,600,400,300 a.jpg b.jpg c.jpg -o preview.jpg\n"
         "  lumora-fuse IMG_*.jpg -o fused.jpg\n"
         "  lumora-fuse --frames IMG_2.jpg,IMG_5.jpg,IMG_8.jpg IMG_*.jpg -o fused.jpg\n"
         "  lumora-fuse --align handheld-1.jpg handheld-2.jpg handheld-3.jpg -o fused.jpg\n"
         "  lumora-fuse --batch --format tif --report report.json photos/ -o fused/\n"
         "\n"
         "Exit status: 0 done, 1 failure (unreadable input, exposures that cannot be\n"
         "aligned or share no opaque area, unwritable output, fusion failure; with\n"
         "--batch, any bracket failed), 2 usage error, 130 cancelled (Ctrl-C); a\n"
         "cancelled or failed run writes nothing.\n";
    return s;
}

namespace {

// The options as given, before their checks.
struct GivenOptions {
    bool help = false, version = false, preserve = true, listDevices = false;
    std::string device = "auto";
    std::string look = kDefaultLook, paramText[kFusionParamCount], threads, quality, depth, loupe, frames, group, format;
};

void declareOptions(CLI::App &app, Options &options, GivenOptions &given) {
    app.set_help_flag();
    app.add_option("images", options.images);
    app.add_option("-o,--output", options.output);
    app.add_flag("-h,--help", given.help);
    app.add_flag("-V,--version", given.version);
    app.add_flag("-q,--quiet", options.quiet);
    app.add_flag("--align", options.align);
    app.add_flag("--deghost", options.deghost);
    app.add_option("--deghost-ref", options.deghostRef);
    app.add_option("--deghost-masks", options.deghostMasks);
    app.add_flag("-v,--verbose", options.verbose);
    app.add_flag("--preserve-highlights,!--no-preserve-highlights", given.preserve);
    app.add_option("--look", given.look);
    app.add_option("--threads", given.threads);
    app.add_option("--device", given.device);
    app.add_flag("--list-devices", given.listDevices);
    app.add_option("--quality", given.quality);
    app.add_option("--depth", given.depth);
    app.add_option("--loupe", given.loupe);
    app.add_option("--frames", given.frames);
    app.add_option("--metadata-from", options.metadataFrom);
    app.add_flag("--batch", options.batch);
    app.add_option("--group", given.group);
    app.add_option("--format", given.format);
    app.add_flag("--overwrite", options.overwrite);
    app.add_option("--report", options.report);
    for (int i = 0; i < kParamSpecCount; ++i)
        app.add_option(std::string("--") + kParamSpecs[i].option, given.paramText[kParamSpecs[i].index]);
}

// argv, @FILE arguments expanded, through the parser; false with the reason.
bool parseArguments(CLI::App &app, int argc, const char *const *argv, std::string &message) {
    try {
        std::vector<std::string> args;
        for (int i = 1; i < argc; ++i)
            args.emplace_back(argv[i]);
        if (!expandArgumentFiles(args, message))
            return false;
        std::reverse(args.begin(), args.end());
        app.parse(args);
    } catch (const std::exception &e) {  // CLI::ParseError among them
        message = e.what();
        return false;
    }
    return true;
}

// --device: auto, cpu, opencl (device 0) or opencl:N.
bool parseDevice(const std::string &text, int &device, std::string &message) {
    int index = 0;
    std::string unused;
    if (text == "auto" || text == "cpu" || text == "opencl") {
        device = text == "auto" ? kDeviceAuto : text == "cpu" ? kDeviceCpu : 0;
        return true;
    }
    if (text.rfind("opencl:", 0) == 0 && checkWhole("--device", text.substr(7), 0, 1000, index, unused)) {
        device = index;
        return true;
    }
    message = "--device: '" + text + "' is not valid (auto, cpu, opencl or opencl:N)";
    return false;
}

// The fusion parameters (the look's, then those given) and the output's numbers.
bool checkValues(const CLI::App &app, Options &options, const GivenOptions &given, std::string &message) {
    const Look *look = findLook(given.look);
    if (!look) {
        message = "--look: '" + given.look + "' is not valid (";
        for (int i = 0; i < kLookCount; ++i)
            message += std::string(i ? i + 1 < kLookCount ? ", " : " or " : "") + kLooks[i].name;
        message += ")";
        return false;
    }
    options.look = look->name;
    lookParams(*look, options.params);
    if (app.count("--preserve-highlights")) {
        options.params[kPreserveHighlights] = given.preserve ? 1.0f : 0.0f;
        options.paramGiven[kPreserveHighlights] = true;
    }
    for (int i = 0; i < kParamSpecCount; ++i) {
        const ParamSpec &param = kParamSpecs[i];
        if (!app.count(std::string("--") + param.option))
            continue;
        if (!checkParam(param, given.paramText[param.index], options.params[param.index], message))
            return false;
        options.paramGiven[param.index] = true;
    }
    if (!checkTogether(options, given.paramText[kStrength], message))
        return false;
    if (app.count("--threads") && !checkWhole("--threads", given.threads, 1, kMaxThreads, options.threads, message))
        return false;
    if (app.count("--device") && !parseDevice(given.device, options.device, message))
        return false;
    if (app.count("--quality") && !checkWhole("--quality", given.quality, 1, 100, options.quality, message))
        return false;
    if (app.count("--depth") && (given.depth != "8" && given.depth != "16")) {
        message = "--depth: '" + given.depth + "' is not valid (8 or 16)";
        return false;
    }
    if (app.count("--depth"))
        options.depth = given.depth == "16" ? 16 : 8;
    return !app.count("--loupe") || parseLoupe(given.loupe, options.loupe, message);
}

// The frame choice and the options that belong to a batch, or never to one.
bool checkFramesAndBatch(const CLI::App &app, Options &options, const GivenOptions &given,
                         std::string &message) {
    if (app.count("--frames") && !parseFrames(given.frames, options.frames, message))
        return false;
    if (app.count("--group") && !checkWhole("--group", given.group, 2, 1000, options.group, message))
        return false;
    for (const char *name : {"--group", "--format", "--overwrite", "--report"})
        if (!options.batch && app.count(name)) {
            message = std::string(name) + ": only with --batch";
            return false;
        }
    for (const char *name : {"--deghost-ref", "--deghost-masks"})
        if (!options.deghost && app.count(name)) {
            message = std::string(name) + ": only with --deghost";
            return false;
        }
    if (options.batch && app.count("--deghost-ref")) {
        message = "--deghost-ref: not with --batch (each bracket has frames of its own)";
        return false;
    }
    if (options.batch && (app.count("--frames") || app.count("--loupe"))) {
        message = std::string(app.count("--frames") ? "--frames" : "--loupe") +
                  ": not with --batch (each bracket is fused whole, from frames of its own)";
        return false;
    }
    return true;
}

}  // namespace

std::string deviceListText() {
    const int count = lumora_device_count();
    if (count == 0)
        return "no OpenCL device: the CPU fuses\n";
    std::string s;
    for (int i = 0; i < count; ++i)
        s += "opencl:" + std::to_string(i) + "  " + lumora_device_name(i) + "\n";
    return s;
}

int parseOptions(int argc, const char *const *argv, Options &options, std::string &message) {
    options = Options();
    CLI::App app("Fuse two or three exposures of one scene", "lumora-fuse");
    GivenOptions given;
    declareOptions(app, options, given);
    if (!parseArguments(app, argc, argv, message))
        return 2;
    if (given.help || given.version || given.listDevices) {
        message = given.help ? helpText() : given.version ? versionText() : deviceListText();
        return 0;
    }
    if (!checkValues(app, options, given, message) || !checkFramesAndBatch(app, options, given, message))
        return 2;
    return checkFiles(options, given.format, message) ? kContinue : 2;
}

}  // namespace lumora_fuse
