// lumora_fuse.cpp: the lumora-fuse command. Reads two or three exposures
// (picked out of more, see frames.h), sorts them darkest first, fuses them
// through the library's public entry points, and writes the result whole or
// not at all; with --batch, so for every bracket found (batch.h).
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "BilateralFilter.h"
#include "align.h"
#include "batch.h"
#include "cancel.h"
#include "crop.h"
#include "frames.h"
#include "fusion_call.h"
#include "fusion_child.h"
#include "image_io.h"
#include "metadata.h"
#include "options.h"
#include "output_file.h"
#include "progress_bar.h"

using namespace lumora_fuse;

namespace {

int gStderr = STDERR_FILENO;  // the terminal's error stream (fd 2 may be redirected)
std::string gLastLine;        // the last line said, for the batch report
std::string gAlignment;       // what the last run's alignment did, for the batch report

void say(const std::string &line) {
    gLastLine = line;
    const std::string text = "lumora-fuse: " + line + "\n";
    writeAll(gStderr, text.data(), text.size());
}

// ---------------------------------------------------------------------------
// Signals.

// First Ctrl-C: ask the fusion to stop at the library's next cancellation
// point. A second one ends everything at once, still leaving no file behind.
void onCancelSignal(int) {
    const int savedErrno = errno;
    if (requestCancel()) {
        signalFusionChild(SIGKILL);
        OutputFile::discardFromSignal();
        static const char text[] = "\nlumora-fuse: cancelled; nothing written\n";
        writeAll(gStderr, text, sizeof text - 1);
        _exit(130);
    }
    signalFusionChild(SIGINT);
    errno = savedErrno;
}

// Should the tool itself die, it leaves no temporary file.
void onFatalSignal(int sig) {
    OutputFile::discardFromSignal();
    signal(sig, SIG_DFL);
    raise(sig);
}

void setHandler(int sig, void (*handler)(int), int flags) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = handler;
    sa.sa_flags = flags;
    sigaction(sig, &sa, nullptr);
}

void installSignalHandlers() {
    setHandler(SIGINT, onCancelSignal, 0);
    setHandler(SIGTERM, onCancelSignal, 0);
    for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        setHandler(sig, onFatalSignal, SA_RESETHAND);
}

// ---------------------------------------------------------------------------

int availableCores() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0)
        return CPU_COUNT(&set);
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? int(n) : 1;
}

// ---------------------------------------------------------------------------
// Memory. A fusion that cannot fit is refused at the first header, before any
// picture is decoded, rather than failing or pushing the machine into swap
// minutes later.

// Fitted to the peak resident memory of whole runs (GNU time; default two
// passes, 2 threads) at 1, 4, 12 and 50 MP with three exposures and at 1 and
// 4 MP with two: a fixed 272 MiB (chiefly the RGB-to-CIELab table, 256^3
// entries of 12 bytes), 3 bytes per picture pixel for every decoded exposure,
// and per fused pixel 24 bytes plus 13 per exposure (its copy for the
// library, its weights and levels). 3 to 9% above the measured peaks from 4
// to 50 MP, 19% at 1 MP, when it was fitted. Since the fusion process gives
// its copy of the decoded exposures back, the peaks are lower (12 MP: 906
// MiB, 4 MP: 499, 1 MP: 300; the estimate 21, 10 and 14% above): left as it
// is until the 50 MP peak has been measured again.
double fusionBytes(double picturePixels, double fusedPixels, int exposures) {
    return 272.0 * 1024 * 1024 + picturePixels * 3 * exposures + fusedPixels * (24 + 13 * exposures);
}

struct MemoryBudget {
    double bytes = 0;  // 0: unknown
    const char *what = "available";
};

// The memory the kernel can give without swapping (MemAvailable), or the
// process's own limits when they are lower.
MemoryBudget memoryBudget() {
    MemoryBudget budget;
    if (FILE *meminfo = fopen("/proc/meminfo", "r")) {
        char line[256];
        long long kib = 0;
        while (fgets(line, sizeof line, meminfo))
            if (sscanf(line, "MemAvailable: %lld kB", &kib) == 1)
                budget.bytes = double(kib) * 1024;
        fclose(meminfo);
    }
    const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
    if (budget.bytes <= 0 && pages > 0 && pageSize > 0)
        budget = {double(pages) * double(pageSize), "of physical memory"};
    auto lower = [&budget](rlim_t limit, const char *what) {
        if (limit != RLIM_INFINITY && (budget.bytes <= 0 || double(limit) < budget.bytes))
            budget = {double(limit), what};
    };
    struct rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) == 0)
        lower(limit.rlim_cur, "address-space limit of the process");
    if (getrlimit(RLIMIT_DATA, &limit) == 0)
        lower(limit.rlim_cur, "data-size limit of the process");
    return budget;
}

std::string memoryText(double bytes) {
    char text[32];
    if (bytes >= 1024.0 * 1024 * 1024)
        snprintf(text, sizeof text, "%.1f GiB", bytes / (1024.0 * 1024 * 1024));
    else
        snprintf(text, sizeof text, "%.0f MiB", bytes / (1024.0 * 1024));
    return text;
}

// Whether the fusion of all the exposures fits, judged from the first one's header.
bool memoryAllows(const Options &options, int width, int height, std::string &error) {
    const Loupe &loupe = options.loupe;
    const bool inLoupe = loupe.enabled && loupe.width > 0 && loupe.height > 0 &&
                         long(loupe.x) + loupe.width <= width && long(loupe.y) + loupe.height <= height;
    // A picture or loupe narrower than the filter is fused extended.
    const FusionArea area = fusionArea(width, height, inLoupe ? loupe : Loupe{});
    const double picture = double(width) * height;
    const int k = int(options.images.size());
    const double need = fusionBytes(picture, double(area.width) * area.height, k);
    const MemoryBudget budget = memoryBudget();
    if (budget.bytes <= 0 || need <= budget.bytes)
        return true;
    error = "image too large for the memory at hand: " + std::to_string(width) + "x" + std::to_string(height) +
            " pixels; fusing " + std::to_string(k) + " such exposures needs about " + memoryText(need) +
            ", more than the " + memoryText(budget.bytes) + " " + budget.what;
    return false;
}

// ---------------------------------------------------------------------------

double meanBrightness(const Image &image) {
    unsigned long long sum = 0;
    for (unsigned char v : image.rgb)
        sum += v;
    return double(sum) / double(image.rgb.size());
}

// Darkest first. Equal means fall back on the pixels themselves, so that the
// order never depends on the order of the arguments.
std::vector<int> brightnessOrder(const std::vector<Image> &images) {
    std::vector<double> mean;
    for (const Image &image : images)
        mean.push_back(meanBrightness(image));
    std::vector<int> order(images.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        if (mean[a] != mean[b])
            return mean[a] < mean[b];
        return images[a].rgb < images[b].rgb;
    });
    return order;
}

std::string sizeText(const Image &image) {
    return std::to_string(image.width) + "x" + std::to_string(image.height);
}

int usageError(const std::string &line) {
    say(line);
    static const char hint[] = "Try 'lumora-fuse --help' for more information.\n";
    writeAll(gStderr, hint, sizeof hint - 1);
    return 2;
}

int cancelled(ProgressBar *bar = nullptr) {
    if (bar)
        bar->clear();
    say("cancelled; nothing written");
    return 130;
}

int cannotWrite(const Options &options, const std::string &error) {
    say(options.output + ": cannot write the output: " + error);
    return 1;
}

// ---------------------------------------------------------------------------
// The steps of a run. Each returns kContinue to go on, or the exit status.

// Every header is checked before its pixels are decoded: the first against
// the memory the whole fusion needs, the others against the first one's size.
int readExposures(const Options &options, std::vector<Image> &images, std::vector<Image> *decoded) {
    if (decoded && !decoded->empty()) {  // by the batch, checked as they were read
        images = std::move(*decoded);
        return kContinue;
    }
    images.assign(options.images.size(), Image());
    for (size_t i = 0; i < images.size(); ++i) {
        std::string error;
        std::vector<std::string> notes;
        const SizeCheck check = [&](int w, int h, std::string &message) {
            if (i == 0)
                return fusionSizeAllowed(w, h, message) && memoryAllows(options, w, h, message);
            if (w == images[0].width && h == images[0].height)
                return true;
            message = "size " + std::to_string(w) + "x" + std::to_string(h) + " differs from " + options.images[0] +
                      " (" + sizeText(images[0]) + "); the exposures must be of one size";
            return false;
        };
        if (!readImage(options.images[i], images[i], error, &notes, check)) {
            say(options.images[i] + ": " + error);
            return 1;
        }
        if (!options.quiet)
            for (const std::string &note : notes)
                say(options.images[i] + ": " + note);
        if (cancelRequested())
            return cancelled();
    }
    return kContinue;
}

// Frames with transparent edges (aligned by another tool, say) are cut down
// to the part opaque in all of them.
int cropTransparentEdges(const Options &options, std::vector<Image> &images) {
    const int width = images[0].width, height = images[0].height;
    Rect kept;
    std::string error;
    if (!cropToOpaque(images, kept, error)) {
        say(error);
        return 1;
    }
    if (!options.quiet && (kept.width != width || kept.height != height))
        say("transparent edges: " + cropText(kept, width, height) + ", the part opaque in every frame");
    return kContinue;
}

// With --align, every frame registered to the middle one (by brightness),
// through the frames between them when picked out of more, and all cut down
// to the area they share; without, a quick look that suggests it when
// aligning would move a frame a pixel or more.
int alignExposures(const Options &options, std::vector<Image> &images, int reference) {
    const std::string &name = options.images[reference];
    if (options.threads > 0)
        setAlignmentThreads(options.threads);
    gAlignment = "none";
    const Neighbours neighbours{options.images, options.bracket};
    if (!options.align) {
        const double off = options.quiet ? 0 : misalignment(images, reference, neighbours);
        char text[160];
        snprintf(text, sizeof text, "the exposures are up to %.1f px out of line with %s; --align would register them",
                 off, name.c_str());
        if (off >= 1.0)
            say(text);
        return kContinue;
    }
    const int width = images[0].width, height = images[0].height;
    AlignSummary summary;
    std::string error;
    if (!alignFrames(images, reference, summary, error, neighbours)) {
        say((summary.failed >= 0 ? options.images[summary.failed] + ": cannot align to " : "cannot align to ") + name +
            ": " + error);
        return 1;
    }
    gAlignment = alignmentLine(summary, options.images, width, height);
    if (!options.quiet)
        say(gAlignment);
    return cancelRequested() ? cancelled() : kContinue;
}

// The part of the picture to fuse: the loupe, checked against the picture's
// size (judged at the first header), or the whole picture.
int fusedRegion(const Options &options, const Image &picture, Loupe &region) {
    const int width = picture.width, height = picture.height;
    region = options.loupe;
    if (!region.enabled) {
        region.width = width;
        region.height = height;
        return kContinue;
    }
    if (region.width < 1 || region.height < 1) {
        return usageError("--loupe: region " + std::to_string(region.width) + "x" + std::to_string(region.height) +
                          " is empty (W and H must be at least 1)");
    }
    if (long(region.x) + region.width > width || long(region.y) + region.height > height) {
        return usageError("--loupe: region " + std::to_string(region.width) + "x" + std::to_string(region.height) +
                          " at " + std::to_string(region.x) + "," + std::to_string(region.y) +
                          " does not fit in the " + std::to_string(width) + "x" + std::to_string(height) +
                          " picture");
    }
    return kContinue;
}

// The output: never one of the inputs nor a write-protected file, and
// writable before hours of work.
int checkOutput(const Options &options, OutputFile &output) {
    struct stat outStat;
    if (stat(options.output.c_str(), &outStat) == 0) {
        if (S_ISDIR(outStat.st_mode)) {
            say(options.output + ": is a directory");
            return 1;
        }
        for (const std::string &input : options.images) {
            struct stat inStat;
            if (stat(input.c_str(), &inStat) == 0 && inStat.st_dev == outStat.st_dev &&
                inStat.st_ino == outStat.st_ino)
                return usageError(options.output + ": is one of the input images; refusing to write over it");
        }
        // Replacing a file takes only the folder's permission, which would go
        // around the file's own write protection. A file that no one may
        // write is kept from the superuser too, whom access() lets write
        // anything.
        if (faccessat(AT_FDCWD, options.output.c_str(), W_OK, AT_EACCESS) != 0 || (outStat.st_mode & 0222) == 0) {
            say(options.output + ": is write-protected; not replacing it");
            return 1;
        }
    }
    std::string error;
    if (!output.create(error))
        return cannotWrite(options, error);
    return kContinue;
}

int fuseExposuresOf(const Options &options, const std::vector<const Image *> &exposures, const Loupe &region,
                    ProgressBar *bar, SharedBuffer &result) {
    FusionRun fusion;
    fusion.exposures = &exposures;
    fusion.region = region;
    fusion.params = options.params;
    fusion.threads = options.threads > 0 ? options.threads : std::min(availableCores(), kMaxThreads);
    fusion.depth = options.depth;
    fusion.captureCommentary = !options.verbose;
    fusion.bar = bar;

    std::string error;
    const FusionResult fused = fuseInChild(fusion, result, error);
    if (bar)
        bar->clear();
    if (fused == FusionResult::Cancelled)
        return cancelled(bar);
    if (fused == FusionResult::Failed) {
        say(error);
        return 1;
    }
    return kContinue;
}

// The fused pixels written, given the reference exposure's metadata, and
// moved into place.
int deliver(const Options &options, const OutputPicture &picture, const std::string &reference, ProgressBar *bar,
            OutputFile &output) {
    std::string error;
    if (!output.write(picture, error))
        return cannotWrite(options, error);
    if (cancelRequested())
        return cancelled(bar);
    switch (output.addMetadata(picture, reference, error)) {
    case OutputFile::Metadata::Copied: break;
    case OutputFile::Metadata::WriteFailed: return cannotWrite(options, error);
    case OutputFile::Metadata::NotCopied: say(options.output + ": metadata of " + reference + " not copied: " + error);
    }
    if (!output.commit(error))
        return cancelRequested() ? cancelled(bar) : cannotWrite(options, error);
    return 0;
}

int run(const Options &options, std::vector<Image> *decoded = nullptr) {
    gAlignment = "none";
    std::vector<Image> images;
    Loupe region;
    OutputFile output(options.output);
    std::vector<int> order;
    int status = readExposures(options, images, decoded);
    if (status == kContinue)
        status = cropTransparentEdges(options, images);
    if (status == kContinue)
        order = brightnessOrder(images), status = alignExposures(options, images, order[images.size() / 2]);
    if (status == kContinue)
        status = fusedRegion(options, images[0], region);
    if (status == kContinue)
        status = checkOutput(options, output);
    if (status != kContinue)
        return status;

    std::vector<const Image *> exposures;
    for (int i : order)
        exposures.push_back(&images[i]);
    // Metadata come from the middle exposure, or the brighter of two, unless
    // --metadata-from names their source.
    const std::string &reference = options.metadataFrom.empty() ? options.images[order[1]] : options.metadataFrom;
    ProgressBar bar(gStderr);
    ProgressBar *shown = !options.quiet && !options.verbose && isatty(gStderr) ? &bar : nullptr;
    SharedBuffer result;
    status = fuseExposuresOf(options, exposures, region, shown, result);
    if (status != kContinue)
        return status;
    images.clear();
    const OutputPicture picture{options.outputFormat, region.width,  region.height,
                                options.depth,        result.data,   options.quality};
    return deliver(options, picture, reference, shown, output);
}

BatchHooks batchHooks() {
    BatchHooks hooks;
    hooks.say = say;
    hooks.usageError = usageError;
    hooks.fuse = [](const Options &options, std::vector<Image> &decoded) { return run(options, &decoded); };
    hooks.lastLine = [] { return gLastLine; };
    hooks.alignment = [] { return gAlignment.empty() ? std::string("none") : gAlignment; };
    hooks.roomFor = [](const Options &current, int width, int height, double moreBytes) {
        const double need = fusionBytes(double(width) * height, double(width) * height,
                                        int(current.images.size())) + moreBytes;
        const MemoryBudget budget = memoryBudget();
        return budget.bytes > 0 && need <= budget.bytes;
    };
    return hooks;
}

}  // namespace

int main(int argc, char **argv) {
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved >= 0)
        gStderr = saved;

    Options options;
    std::string message;
    const int status = parseOptions(argc, argv, options, message);
    if (status == 0) {
        fputs(message.c_str(), stdout);
        return fflush(stdout) == 0 ? 0 : 1;
    }
    if (status != kContinue)
        return usageError(message);
    installSignalHandlers();
    muteMetadataWarnings(!options.verbose);
    if (!options.metadataFrom.empty() && access(options.metadataFrom.c_str(), R_OK) != 0) {
        say(options.metadataFrom + ": cannot read the metadata: " + strerror(errno));
        return 1;
    }
    if (options.batch)
        return runBatch(options, batchHooks());
    FrameChoice choice;
    const int chosen = chooseFrames(options.images, options.frames, choice, message);
    if (chosen == 2)
        return usageError(message);
    if (chosen == 130)
        return cancelled();
    if (chosen != kContinue) {
        say(message);
        return chosen;
    }
    if (!options.quiet && !choice.line.empty())
        say(choice.line);
    options.images = choice.paths;
    options.bracket = choice.bracket;
    return run(options);
}
