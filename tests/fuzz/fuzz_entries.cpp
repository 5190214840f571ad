// fuzz_entries.cpp: what each fuzz target does with one input, and the
// promises of the tool's code that it checks on the way.
#include "fuzz_entries.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "frames.h"
#include "fusion_call.h"
#include "image_io.h"
#include "options.h"

using namespace lumora_fuse;

namespace lumora_fuzz {
namespace {

// Reads the input front to back; zeros once it runs out.
struct ByteReader {
    const uint8_t *data;
    size_t size, at = 0;
    unsigned byte() { return at < size ? data[at++] : 0u; }
    unsigned word() { return byte() << 8 | byte(); }
};

std::string formatted(double v) {
    char text[40];
    snprintf(text, sizeof text, "%.17g", v);
    return text;
}

// The promises parseOptions makes when it lets the tool go on.
std::string checkAccepted(const Options &o) {
    // A fusion of two or more frames (three of more are picked), or a batch
    // of at least one file or folder; the options of the one never with the
    // other.
    if (o.images.size() < (o.batch ? 1u : 2u))
        return "accepted " + std::to_string(o.images.size()) + " images";
    if (o.batch ? !o.frames.empty() || o.loupe.enabled
                : o.group != 0 || o.overwrite || !o.report.empty())
        return "accepted an option of the other mode (batch " + std::to_string(o.batch) + ")";
    // The deghosting's reference and masks only with it; its reference, a
    // frame of one fusion, never in a batch.
    if (!o.deghost && (!o.deghostRef.empty() || !o.deghostMasks.empty()))
        return "accepted --deghost-ref or --deghost-masks without --deghost";
    if (o.batch && !o.deghostRef.empty())
        return "accepted --deghost-ref with --batch";
    if (!o.frames.empty() && (o.frames.size() < 2 || o.frames.size() > 3))
        return "accepted " + std::to_string(o.frames.size()) + " frames to fuse";
    if (o.group != 0 && (o.group < 2 || o.group > 1000))
        return "accepted --group " + std::to_string(o.group);
    if (o.quiet && o.verbose)
        return "accepted --quiet with --verbose";
    if (o.output.empty() || o.outputFormat == FileFormat::Unknown)
        return "accepted an output without a known format: '" + o.output + "'";
    if (o.depth != 8 && o.depth != 16)
        return "accepted depth " + std::to_string(o.depth);
    if (o.outputFormat == FileFormat::Jpeg && o.depth != 8)
        return "accepted a 16-bit JPEG";
    if (o.threads < 0 || o.threads > kMaxThreads || o.quality < 1 || o.quality > 100)
        return "accepted threads " + std::to_string(o.threads) + " or quality " + std::to_string(o.quality);
    if (o.device < kDeviceAuto || o.device == -2 || o.device > 1000)
        return "accepted device " + std::to_string(o.device);
    if (o.loupe.enabled && (o.loupe.x < 0 || o.loupe.y < 0 || o.loupe.width < 0 || o.loupe.height < 0))
        return "accepted a negative loupe";
    for (int i = 0; i < kParamSpecCount; ++i) {
        const ParamSpec &p = kParamSpecs[i];
        const float v = o.params[p.index];
        // The checks run in double; the library gets the value rounded to float.
        if (!(v >= float(p.min) && v <= float(p.max)) || (p.integer && v != std::trunc(v)))
            return std::string("accepted --") + p.option + " " + formatted(v);
    }
    if (int(o.params[kPreserveHighlights]) != 0 && o.params[kHighlightInfluence] < 10.0f &&
        o.params[kStrength] > kMaxStrengthWithInfluence)
        return "accepted --strength " + formatted(o.params[kStrength]) + " with a highlight influence below 10";
    return "";
}

// parseOptions on a command line; its status.
int parse(const std::vector<std::string> &args, Options &options, std::string &message) {
    std::vector<const char *> argv;
    for (const std::string &arg : args) argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    return parseOptions(int(args.size()), argv.data(), options, message);
}

// Progress as the tool's bar sees it: from 0 to 1, never backwards, and 1
// only once, at the very end.
struct ProgressLog {
    float last = 0.0f;
    int ones = 0;
    std::string problem;
};
ProgressLog gLog;

void logProgress(int *, float amount) {
    if (!gLog.problem.empty()) return;
    if (!(amount >= gLog.last && amount <= 1.0f) || gLog.ones > 0)
        gLog.problem = "progress went from " + formatted(gLog.last) + " to " + formatted(amount);
    gLog.last = amount;
    gLog.ones += amount == 1.0f;
}

}  // namespace

std::string fuzzReadImage(const uint8_t *data, size_t size) {
    Image image;
    std::string error;
    std::vector<std::string> notes;
    const bool ok = readImageMemory(data, size, image, error, &notes);
    if (!ok)
        return error.empty() || error.find('\n') != std::string::npos || !image.rgb.empty()
                   ? "failure without a one-line message, or with pixels: '" + error + "'"
                   : "";
    if (image.width < 1 || image.height < 1 || (long long)image.width * image.height > kMaxPixels ||
        image.rgb.size() != size_t(image.width) * image.height * 3)
        return "read " + std::to_string(image.width) + "x" + std::to_string(image.height) + " with " +
               std::to_string(image.rgb.size()) + " bytes";
    const auto oneLine = [](const std::string &n) { return !n.empty() && n.find('\n') == n.npos; };
    return std::all_of(notes.begin(), notes.end(), oneLine) ? "" : "a conversion note that is not one line";
}

std::string fuzzOptions(const uint8_t *data, size_t size) {
    std::vector<std::string> args = {"lumora-fuse"};
    std::string current;
    for (size_t i = 0; i < size; ++i)
        data[i] == '\0' || data[i] == '\n' ? (args.push_back(current), current.clear())
                                             : current.push_back(char(data[i]));
    args.push_back(current);
    Options options;
    std::string message;
    const int status = parse(args, options, message);
    if (status == kContinue)
        return checkAccepted(options);
    if (status == 0)
        return message == helpText() || message == versionText() || message == deviceListText()
                   ? ""
                   : "--help, --version or --list-devices printed: " + message;
    if (status != 2 || message.empty() || message.find('\n') != std::string::npos)
        return "usage error " + std::to_string(status) + " without a one-line message: '" + message + "'";
    return "";
}

std::string fuzzFusion(const uint8_t *data, size_t size) {
    // Layout: width, height, switches, two bytes per fusion parameter, four
    // loupe bytes; the rest are the pixels, repeated as often as needed.
    ByteReader in{data, size};
    int width = 1 + int(in.byte() % kFusionMaxSide), height = 1 + int(in.byte() % kFusionMaxSide);
    const unsigned switches = in.byte();
    const int count = switches & 1 ? 3 : 2;
    const bool preserve = switches & 2, deep = switches & 4, twoThreads = switches & 8, loupe = switches & 16;
    // A loupe may look into a ten times larger picture, whose size sets the
    // library's radii while only the region (and its surroundings) is fused.
    if (loupe && (switches & 32)) width *= 10, height *= 10;

    double values[kFusionParamCount] = {};
    for (int i = 0; i < kParamSpecCount; ++i) {
        const ParamSpec &p = kParamSpecs[i];
        // Both ends of the range reachable; an excluded minimum is stepped over.
        const unsigned w = in.word();
        double v = p.min + (p.max - p.min) * (p.minExclusive ? (w + 1) / 65536.0 : w / 65535.0);
        values[p.index] = p.integer ? std::round(v) : v;
    }
    // The tool's one rule across parameters: scaled into what it allows.
    if (preserve && values[kHighlightInfluence] < 10.0 && values[kStrength] > kMaxStrengthWithInfluence)
        values[kStrength] *= kMaxStrengthWithInfluence / 100.0;
    Loupe region;
    if (loupe) {
        region.enabled = true;
        region.width = 1 + int(in.byte() % unsigned(std::min(width, kFusionMaxSide)));
        region.height = 1 + int(in.byte() % unsigned(std::min(height, kFusionMaxSide)));
        region.x = int(in.byte() % unsigned(width - region.width + 1));
        region.y = int(in.byte() % unsigned(height - region.height + 1));
    } else {
        in.at += 4;
    }

    // The settings go through the tool's own option checks.
    std::vector<std::string> args = {"lumora-fuse"};
    for (int i = 0; i < kParamSpecCount; ++i)
        args.push_back(std::string("--") + kParamSpecs[i].option + "=" + formatted(values[kParamSpecs[i].index]));
    args.push_back(preserve ? "--preserve-highlights" : "--no-preserve-highlights");
    args.push_back(twoThreads ? "--threads=2" : "--threads=1");
    args.push_back(deep ? "--depth=16" : "--depth=8");
    if (loupe)
        args.push_back("--loupe=" + std::to_string(region.x) + "," + std::to_string(region.y) + "," +
                       std::to_string(region.width) + "," + std::to_string(region.height));
    for (int k = 0; k < count; ++k)
        args.push_back(std::string(1, char('a' + k)) + ".png");
    args.insert(args.end(), {"-o", "fused.png"});
    Options options;
    std::string message;
    if (parse(args, options, message) != kContinue)
        return "the tool refused settings within its ranges: " + message;

    // Exposures, darkest first as the tool sorts them.
    const size_t pixels = size_t(width) * height * 3;
    const uint8_t *rest = data + std::min(in.at, size);
    const size_t restSize = size - std::min(in.at, size);
    std::vector<Image> images(size_t(count), Image{width, height, std::vector<unsigned char>(pixels, 128)});
    for (size_t i = 0; i < pixels * images.size() && restSize > 0; ++i)
        images[i / pixels].rgb[i % pixels] = rest[i % restSize];
    FusionJob job{{}, options.loupe, options.params, options.threads, options.depth, logProgress};
    std::vector<const Image *> given;
    for (const Image &image : images) given.push_back(&image);
    for (int i : brightnessOrder(given)) job.exposures.push_back(given[size_t(i)]);
    const int outWidth = loupe ? region.width : width, outHeight = loupe ? region.height : height;
    const size_t outBytes = size_t(outWidth) * outHeight * 3 * size_t(options.depth / 8);
    std::vector<unsigned char> out(outBytes + 64, 0xA5);  // a guard past the result
    gLog = ProgressLog();
    const FusionStatus status = fuseExposures(job, out.data());
    if (!gLog.problem.empty()) return gLog.problem;
    if (status != FusionStatus::Done || gLog.ones != 1)
        return "the fusion did not complete (status " + std::to_string(int(status)) + ")";
    return std::all_of(out.begin() + long(outBytes), out.end(), [](unsigned char v) { return v == 0xA5; })
               ? ""
               : "the fusion wrote past its " + std::to_string(outWidth) + "x" + std::to_string(outHeight) + " result";
}

}  // namespace lumora_fuzz
