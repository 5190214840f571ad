// batch.cpp: brackets found among many files and fused one after the other,
// the next one's frames decoded in the background while one fuses.
#include "batch.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <future>
#include <set>

#include "cancel.h"
#include "console.h"
#include "fusion_call.h"
#include "fusion_child.h"
#include "memory.h"
#include "run.h"

namespace lumora_fuse {
namespace {

namespace fs = std::filesystem;

// A frame's exposure time beyond which the next one's capture time counts as
// a new bracket.
constexpr double kBracketGapSeconds = 5;

using Bracket = BatchBracket;

// The frames of one bracket, picked and (in the background) decoded.
struct Prepared {
    int status = kContinue;
    std::string error;
    FrameChoice choice;
    std::vector<Image> images;  // empty unless decoded
    std::vector<std::string> notes;
};

Prepared prepare(const Bracket &bracket, bool decode) {
    Prepared p;
    std::vector<std::string> paths;
    for (const FrameInfo &f : bracket.frames)
        paths.push_back(f.path);
    p.status = chooseFrames(paths, {}, p.choice, p.error);
    if (p.status == kContinue && decode)
        p.status = readBracket(p.choice.paths, fusionSizeAllowed, p.images, p.notes, p.error);
    return p;
}

// In a thread of its own, which leaves the cancel signals to the main thread.
std::future<Prepared> prepareInBackground(const Bracket &bracket) {
    return std::async(std::launch::async, [&bracket] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        return prepare(bracket, true);
    });
}

bool isFusedOutput(const fs::path &path) {
    const std::string stem = path.stem().string();
    return stem.size() >= 6 && stem.compare(stem.size() - 6, 6, "_fused") == 0;
}

std::vector<std::string> gather(const std::vector<std::string> &args) {
    std::vector<std::string> files;
    for (const std::string &arg : args) {
        std::error_code error;
        if (!fs::is_directory(arg, error)) {
            files.push_back(arg);
            continue;
        }
        std::vector<std::string> inFolder;
        for (const auto &entry : fs::directory_iterator(arg, error))
            if (entry.is_regular_file(error) && formatFromExtension(entry.path().string()) != FileFormat::Unknown &&
                !isFusedOutput(entry.path()))
                inFolder.push_back(entry.path().string());
        std::sort(inFolder.begin(), inFolder.end());
        files.insert(files.end(), inFolder.begin(), inFolder.end());
    }
    return files;
}

std::string quoted(const std::string &text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if ((unsigned char)c < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", c);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string quotedList(const std::vector<std::string> &items) {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i)
        out += (i ? ", " : "") + quoted(items[i]);
    return out + "]";
}

std::string reportText(const Options &options, const std::vector<Bracket> &brackets) {
    std::string out = "{\n  \"look\": " + quoted(lookLine(options)) + ",\n  \"brackets\": [";
    int counts[3] = {};
    for (size_t i = 0; i < brackets.size(); ++i) {
        const Bracket &b = brackets[i];
        std::vector<std::string> inputs;
        for (const FrameInfo &f : b.frames)
            inputs.push_back(f.path);
        char seconds[32];
        snprintf(seconds, sizeof seconds, "%.3f", b.seconds);
        out += std::string(i ? "," : "") + "\n    {\"inputs\": " + quotedList(inputs) +
               ", \"output\": " + quoted(b.output) + ", \"frames\": " + quotedList(b.chosen) +
               ", \"alignment\": " + quoted(b.alignment) + ", \"deghost\": " + quoted(b.deghost) +
               ", \"device\": " + quoted(b.device) + ", \"seconds\": " + seconds + ", \"status\": " + quoted(b.status) +
               ", \"error\": " + quoted(b.error) + "}";
        counts[b.status == "fused" ? 0 : b.status == "skipped" ? 1 : 2] += 1;
    }
    return out + "\n  ],\n  \"fused\": " + std::to_string(counts[0]) + ", \"skipped\": " +
           std::to_string(counts[1]) + ", \"failed\": " + std::to_string(counts[2]) + "\n}\n";
}

std::string timeLeft(double seconds) {
    if (seconds < 90)
        return "about " + std::to_string(int(std::ceil(seconds))) + " s left";
    if (seconds < 5400)
        return "about " + std::to_string(int(std::lround(seconds / 60))) + " min left";
    return "about " + std::to_string(int(std::lround(seconds / 3600))) + " h left";
}

const char *extensionOf(FileFormat format) {
    return format == FileFormat::Png ? ".png" : format == FileFormat::Tiff ? ".tif" : ".jpg";
}

}  // namespace

int groupBrackets(int group, std::vector<FrameInfo> frames, std::vector<BracketFrames> &brackets,
                  std::string &error) {
    if (group > 0) {
        std::sort(frames.begin(), frames.end(), [](const FrameInfo &a, const FrameInfo &b) { return a.path < b.path; });
        for (size_t i = 0; i < frames.size(); i += size_t(group))
            brackets.emplace_back(frames.begin() + long(i), frames.begin() + long(std::min(frames.size(), i + group)));
        return kContinue;
    }
    for (const FrameInfo &f : frames)
        if (!f.hasCaptureTime) {
            error = f.path + ": records no capture time; give --group N to group the frames by N in name order";
            return 2;
        }
    std::stable_sort(frames.begin(), frames.end(), [](const FrameInfo &a, const FrameInfo &b) {
        return a.captureTime != b.captureTime ? a.captureTime < b.captureTime : a.path < b.path;
    });
    std::vector<double> light;
    const bool recorded = recordedLight(frames, light);
    size_t first = 0;  // the current bracket's first frame
    for (size_t i = 0; i < frames.size(); ++i) {
        bool starts = i == 0 || frames[i].captureTime - frames[i - 1].captureTime - frames[i - 1].exposureTime >
                                    kBracketGapSeconds;
        for (size_t j = first; j < i && recorded && !starts; ++j)
            starts = std::abs(light[j] - light[i]) < 0.01;
        if (starts) {
            brackets.emplace_back();
            first = i;
        }
        brackets.back().push_back(frames[i]);
    }
    return kContinue;
}

namespace {

// The frames of the files and folders given; each unreadable file becomes a
// failed bracket of its own.
void readFrames(const Options &options, std::vector<FrameInfo> &frames,
                std::vector<Bracket> &unreadable) {
    for (const std::string &path : gather(options.images)) {
        FrameInfo info;
        std::string why;
        if (readFrameInfo(path, info, why)) {
            frames.push_back(info);
            continue;
        }
        say(path + ": " + why + "; skipped");
        unreadable.emplace_back();
        unreadable.back().frames.push_back(info);
        unreadable.back().frames.back().path = path;
        unreadable.back().error = why;
    }
}

// Names every bracket's output and returns the brackets to fuse: not those of
// one frame, those whose output another bracket writes, nor (without
// --overwrite) those whose output exists.
std::vector<size_t> bracketsToFuse(const Options &options, std::vector<Bracket> &brackets) {
    std::vector<size_t> todo;
    std::set<std::string> names;  // the outputs so far: two brackets never write one file
    std::error_code error;
    for (size_t i = 0; i < brackets.size(); ++i) {
        Bracket &b = brackets[i];
        const fs::path middle(b.frames[b.frames.size() / 2].path);
        b.output = (fs::path(options.output) / (middle.stem().string() + "_fused" +
                                                 extensionOf(options.outputFormat))).string();
        if (b.frames.size() < 2) {
            b.error = "a bracket of one frame; nothing to fuse it with";
            say(b.frames[0].path + ": " + b.error);
        } else if (!names.insert(b.output).second) {
            b.error = "another bracket's output has the same name";
            say(b.output + ": " + b.error + "; not fused");
        } else if (!options.overwrite && fs::exists(b.output, error)) {
            b.status = "skipped";
            if (!options.quiet)
                say(b.output + ": exists; skipped (--overwrite replaces it)");
        } else {
            todo.push_back(i);
        }
    }
    return todo;
}

// The batch's loop over the brackets to fuse, with its time estimate and the
// next bracket decoded in the background.
struct BatchRun {
    const Options &options;
    std::vector<Bracket> &brackets;
    const std::vector<size_t> &todo;
    double fusedSeconds = 0;
    int fusedCount = 0;
    std::future<Prepared> next;

    void announce(size_t k, const Bracket &b, const Prepared &p) const {
        if (options.quiet)
            return;
        std::string line = "bracket " + std::to_string(k + 1) + " of " + std::to_string(todo.size()) + ": " +
                           std::to_string(b.frames.size()) + " frames -> " + b.output;
        if (fusedCount > 0)
            line += "; " + timeLeft(fusedSeconds / fusedCount * double(todo.size() - k));
        say(line);
        if (!p.choice.line.empty())
            say(p.choice.line);
        for (const std::string &note : p.notes)
            say(note);
    }

    // Fuses bracket k; returns 0 or the single run's exit status.
    int fuse(size_t k, Bracket &b, Prepared &p) {
        b.chosen = p.choice.paths;
        Options one = options;
        one.images = p.choice.paths;
        one.bracket = p.choice.bracket;
        one.output = b.output;
        if (k + 1 < todo.size()) {
            const Bracket &after = brackets[todo[k + 1]];
            const double pixels = double(after.frames[0].width) * after.frames[0].height;
            if (!kForkWithOneThread &&
                memoryHolds(b.frames[0].width, b.frames[0].height, int(one.images.size()), pixels * 3 * 4))
                next = prepareInBackground(after);
        }
        const RunOutcome outcome = fuseBracket(one, std::move(p.images));
        b.alignment = outcome.alignment;
        b.deghost = outcome.deghost;
        b.device = outcome.device;
        if (outcome.status != 0)
            b.error = outcome.lastLine;
        return outcome.status;
    }

    // 0, 1 when a bracket failed, 130 when cancelled.
    int all() {
        int status = 0;
        for (size_t k = 0; k < todo.size() && status != 130; ++k) {
            Bracket &b = brackets[todo[k]];
            const auto start = std::chrono::steady_clock::now();
            Prepared p = next.valid() ? next.get() : prepare(b, false);
            announce(k, b, p);
            int result = p.status;
            if (result != kContinue) {
                if (result != 130)
                    say(p.error);
                b.error = p.error;
            } else {
                result = fuse(k, b, p);
            }
            b.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (result == 0) {
                b.status = "fused";
                fusedSeconds += b.seconds;
                fusedCount += 1;
            } else {
                status = result == 130 ? 130 : 1;
                if (result == 130)
                    b.status = "cancelled";
            }
        }
        if (next.valid())
            next.wait();
        return status;
    }
};

}  // namespace

int planBatch(const Options &options, std::vector<BatchBracket> &brackets, std::vector<size_t> &todo) {
    initMetadataForThreads();
    std::error_code error;
    if (!fs::is_directory(options.output, error) && !fs::create_directory(options.output, error)) {
        say(options.output + ": cannot make the output folder: " + error.message());
        return 1;
    }
    std::vector<FrameInfo> frames;
    readFrames(options, frames, brackets);
    const size_t unreadable = brackets.size();
    std::string why;
    std::vector<BracketFrames> groups;
    if (groupBrackets(options.group, frames, groups, why) != kContinue)
        return usageError(why);
    std::vector<Bracket> grouped(groups.size());
    for (size_t i = 0; i < groups.size(); ++i)
        grouped[i].frames = std::move(groups[i]);
    todo = bracketsToFuse(options, grouped);
    for (size_t &k : todo)
        k += unreadable;
    brackets.insert(brackets.end(), grouped.begin(), grouped.end());
    return kContinue;
}

int finishBatch(const Options &options, const std::vector<BatchBracket> &brackets, int status) {
    if (status == 0 && std::any_of(brackets.begin(), brackets.end(),
                                   [](const Bracket &b) { return b.status == "failed"; }))
        status = 1;
    if (!options.report.empty()) {
        const std::string text = reportText(options, brackets);
        std::string reason;
        if (!writeFileBytes(options.report, text.data(), text.size(), reason)) {
            say(options.report + ": cannot write the report: " + reason);
            return status == 130 ? 130 : 1;
        }
    }
    return status;
}

int runBatch(const Options &options) {
    std::vector<Bracket> brackets;
    std::vector<size_t> todo;
    const int planned = planBatch(options, brackets, todo);
    if (planned != kContinue)
        return planned;
    BatchRun run{options, brackets, todo, 0.0, 0, {}};
    return finishBatch(options, brackets, run.all());
}

}  // namespace lumora_fuse
