// run.cpp: the steps of one run, each saying why it stops.
#include "run.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "align.h"
#include "batch.h"
#include "cancel.h"
#include "console.h"
#include "crop.h"
#include "deghost.h"
#include "frames.h"
#include "fusion_call.h"
#include "fusion_child.h"
#include "memory.h"
#include "metadata.h"
#include "output_file.h"
#include "progress_bar.h"

namespace lumora_fuse {
namespace {

int availableCores() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0)
        return CPU_COUNT(&set);
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? int(n) : 1;
}

// One bracket's run. Each step returns kContinue to go on, or the exit
// status, having said why.
class BracketRun {
public:
    BracketRun(const Options &options, std::vector<Image> &&decoded, bool inProcess)
        : options_(options), images_(std::move(decoded)), output_(options.output), inProcess_(inProcess) {}

    RunOutcome run() {
        int status = deghostChecks();
        if (status == kContinue)
            status = readExposures();
        if (status == kContinue)
            status = cropTransparentEdges();
        if (status == kContinue)
            status = alignExposures();
        if (status == kContinue)
            status = deghostExposures();
        if (status == kContinue)
            status = fusedRegion();
        if (status == kContinue)
            status = checkOutput();
        SharedBuffer result;
        if (status == kContinue)
            status = fuse(result);
        if (status == kContinue)
            status = deliver(result);
        outcome_.status = status;
        return outcome_;
    }

private:
    void say(const std::string &line) {
        outcome_.lastLine = line;
        lumora_fuse::say(line);
    }
    int usageError(const std::string &line) {
        outcome_.lastLine = line;
        return lumora_fuse::usageError(line);
    }
    void clearBar() {
        if (shown_)
            shown_->clear();
    }
    int cancelled() {
        clearBar();
        say("cancelled; nothing written");
        return 130;
    }
    int cannotWrite(const std::string &error) {
        say(options_.output + ": cannot write the output: " + error);
        return 1;
    }

    // Every header is checked before its pixels are decoded: the first
    // against the memory the whole fusion needs, the others against the
    // first one's size. Frames decoded by the batch were checked as read.
    int readExposures() {
        if (!images_.empty())
            return kContinue;
        const int count = int(options_.images.size());
        const SizeCheck fits = [&](int w, int h, std::string &message) {
            return fusionSizeAllowed(w, h, message) && fusionFitsMemory(w, h, options_.loupe, count, message);
        };
        std::vector<std::string> notes;
        std::string error;
        const int status = readBracket(options_.images, fits, images_, notes, error);
        if (!options_.quiet)
            for (const std::string &note : notes)
                say(note);
        if (status == 130)
            return cancelled();
        if (status != kContinue)
            say(error);
        return status;
    }

    // Frames with transparent edges (aligned by another tool, say) are cut
    // down to the part opaque in all of them.
    int cropTransparentEdges() {
        const int width = images_[0].width, height = images_[0].height;
        Rect kept;
        std::string error;
        if (!cropToOpaque(images_, kept, error)) {
            say(error);
            return 1;
        }
        if (!options_.quiet && (kept.width != width || kept.height != height))
            say("transparent edges: " + cropText(kept, width, height) + ", the part opaque in every frame");
        return kContinue;
    }

    // With --align, every frame registered to the middle one (by
    // brightness), through the frames between them when picked out of more,
    // and all cut down to the area they share; without, a quick look that
    // suggests it when aligning would move a frame a pixel or more.
    int alignExposures() {
        std::vector<const Image *> frames;
        for (const Image &image : images_)
            frames.push_back(&image);
        order_ = brightnessOrder(frames);
        const int reference = order_[images_.size() / 2];
        const std::string &name = options_.images[reference];
        setAlignmentThreads(options_.threads);
        const Neighbours neighbours{options_.images, options_.bracket};
        if (!options_.align) {
            const double off = options_.quiet ? 0 : misalignment(images_, reference, neighbours);
            char text[160];
            snprintf(text, sizeof text,
                     "the exposures are up to %.1f px out of line with %s; --align would register them", off,
                     name.c_str());
            if (off >= 1.0)
                say(text);
            // Frames out of line disagree everywhere; --align comes first.
            else if (!options_.quiet && !options_.deghost && motionShare(images_, reference) > kMotionSuggested)
                say("the exposures disagree over more than exposure explains (something moved); --deghost would "
                    "remove the ghosts");
            return kContinue;
        }
        const int width = images_[0].width, height = images_[0].height;
        AlignSummary summary;
        std::string error;
        if (!alignFrames(images_, reference, summary, error, neighbours)) {
            say((summary.failed >= 0 ? options_.images[summary.failed] + ": cannot align to " : "cannot align to ") +
                name + ": " + error);
            return 1;
        }
        outcome_.alignment = alignmentLine(summary, options_.images, width, height);
        if (!options_.quiet)
            say(outcome_.alignment);
        return cancelRequested() ? cancelled() : kContinue;
    }

    // --deghost-ref names one of the frames fused, and the masks' folder
    // takes files, before anything is read.
    int deghostChecks() {
        const std::string &named = options_.deghostRef;
        for (size_t i = 0; i < options_.images.size() && !named.empty(); ++i)
            if (options_.images[i] == named || sameFile(options_.images[i], named))
                deghostRef_ = int(i);
        if (!named.empty() && deghostRef_ < 0) {
            std::string fused;
            for (const std::string &image : options_.images)
                fused += (fused.empty() ? "" : ", ") + image;
            return usageError("--deghost-ref: '" + named + "' is not one of the frames fused (" + fused + ")");
        }
        std::string error;
        if (!options_.deghostMasks.empty() && !prepareMaskFolder(options_.deghostMasks, error)) {
            say(error);
            return 1;
        }
        return kContinue;
    }

    // With --deghost, every frame made to agree with the reference (the
    // middle exposure, or the one --deghost-ref names) where the scene moved.
    int deghostExposures() {
        if (!options_.deghost)
            return kContinue;
        const int reference = deghostRef_ >= 0 ? deghostRef_ : order_[images_.size() / 2];
        DeghostSummary summary;
        deghostFrames(images_, reference, summary);
        outcome_.deghost = deghostLine(summary, options_.images);
        if (!options_.quiet)
            say(outcome_.deghost);
        std::string error;
        if (!options_.deghostMasks.empty() && !writeMasks(options_.deghostMasks, summary, options_.images, error)) {
            say(error);
            return 1;
        }
        return cancelRequested() ? cancelled() : kContinue;
    }

    // The part of the picture to fuse: the loupe, checked against the
    // picture's size, or the whole picture.
    int fusedRegion() {
        const int width = images_[0].width, height = images_[0].height;
        region_ = options_.loupe;
        if (!region_.enabled) {
            region_.width = width;
            region_.height = height;
            return kContinue;
        }
        const std::string problem = loupeProblem(region_, width, height);
        return problem.empty() ? kContinue : usageError(problem);
    }

    // The output: never one of the inputs nor a write-protected file, and
    // writable before hours of work.
    int checkOutput() {
        const std::string &path = options_.output;
        struct stat outStat;
        if (stat(path.c_str(), &outStat) == 0) {
            if (S_ISDIR(outStat.st_mode)) {
                say(path + ": is a directory");
                return 1;
            }
            for (const std::string &input : options_.images)
                if (sameFile(input, path))
                    return usageError(path + ": is one of the input images; refusing to write over it");
            // Replacing a file takes only the folder's permission, which
            // would go around the file's own write protection. A file that
            // no one may write is kept from the superuser too, whom access()
            // lets write anything.
            if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 || (outStat.st_mode & 0222) == 0) {
                say(path + ": is write-protected; not replacing it");
                return 1;
            }
        }
        std::string error;
        return output_.create(error) ? kContinue : cannotWrite(error);
    }

    // Fused in a process of its own, into memory it shares with the tool.
    int fuse(SharedBuffer &result) {
        std::vector<const Image *> exposures;
        for (int i : order_)
            exposures.push_back(&images_[i]);
        shown_ = !options_.quiet && !options_.verbose && isatty(consoleFd()) ? &bar_ : nullptr;
        FusionRun fusion = fusionRunOf(options_, exposures, region_);
        fusion.bar = shown_;
        std::string error;
        const FusionResult fused =
            inProcess_ ? fuseHere(fusion, result, error) : fuseInChild(fusion, result, error);
        clearBar();
        if (fused == FusionResult::Cancelled)
            return cancelled();
        if (fused == FusionResult::Failed) {
            say(error);
            return 1;
        }
        outcome_.device = result.fusedOn;
        if (options_.verbose)
            say("fused on " + outcome_.device);
        images_.clear();
        return kContinue;
    }

    // The fused pixels written with the reference exposure's metadata and
    // moved into place. The metadata come from the middle exposure, or the
    // brighter of two, unless --metadata-from names their source.
    int deliver(const SharedBuffer &result) {
        std::string error;
        const std::string &reference =
            options_.metadataFrom.empty() ? options_.images[order_[1]] : options_.metadataFrom;
        const OutputPicture picture{options_.outputFormat, region_.width, region_.height,
                                    options_.depth,        result.data,   options_.quality};
        if (!output_.write(picture, error))
            return cannotWrite(error);
        if (cancelRequested())
            return cancelled();
        switch (output_.addMetadata(picture, reference, error)) {
        case OutputFile::Metadata::Copied: break;
        case OutputFile::Metadata::WriteFailed: return cannotWrite(error);
        case OutputFile::Metadata::NotCopied:
            say(options_.output + ": metadata of " + reference + " not copied: " + error);
        }
        if (!output_.commit(error))
            return cancelRequested() ? cancelled() : cannotWrite(error);
        return 0;
    }

    const Options &options_;
    std::vector<Image> images_;
    OutputFile output_;
    std::vector<int> order_;  // images_ darkest first
    int deghostRef_ = -1;     // the frame --deghost-ref names, if any
    Loupe region_;
    ProgressBar bar_{consoleFd()};
    ProgressBar *shown_ = nullptr;  // the bar, when it is drawn
    bool inProcess_;
    RunOutcome outcome_;
};

RunOutcome failed(int status, const std::string &line) {
    RunOutcome outcome;
    outcome.status = status;
    outcome.lastLine = line;
    if (status == 2)
        usageError(line);
    else
        say(line);
    return outcome;
}

}  // namespace

RunOutcome fuseBracket(const Options &options, std::vector<Image> decoded, bool inProcess) {
    return BracketRun(options, std::move(decoded), inProcess).run();
}

FusionRun fusionRunOf(const Options &options, const std::vector<const Image *> &exposures, const Loupe &region) {
    FusionRun run;
    run.exposures = &exposures;
    run.region = region;
    run.params = options.params;
    run.threads = options.threads > 0 ? options.threads : std::min(availableCores(), kMaxThreads);
    run.depth = options.depth;
    run.device = options.device;
    run.captureCommentary = !options.verbose;
    return run;
}

RunOutcome runTool(Options options) {
    muteMetadataWarnings(!options.verbose);
    if (options.verbose)
        say("look " + lookLine(options));
    if (!options.metadataFrom.empty() && access(options.metadataFrom.c_str(), R_OK) != 0)
        return failed(1, options.metadataFrom + ": cannot read the metadata: " + strerror(errno));
    if (options.batch) {
        RunOutcome outcome;
        outcome.status = runBatch(options);
        return outcome;
    }
    FrameChoice choice;
    std::string message;
    const int chosen = chooseFrames(options.images, options.frames, choice, message);
    if (chosen == 130)
        return failed(130, "cancelled; nothing written");
    if (chosen != kContinue)
        return failed(chosen, message);
    if (!options.quiet && !choice.line.empty())
        say(choice.line);
    options.images = choice.paths;
    options.bracket = choice.bracket;
    return fuseBracket(options);
}

}  // namespace lumora_fuse
