// lumora_fuse.cpp: the lumora-fuse command. Reads two or three exposures,
// sorts them darkest first, fuses them through the library's public entry
// points, and writes the result whole or not at all.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "BilateralFilter.h"
#include "fusion_call.h"
#include "image_io.h"
#include "metadata.h"
#include "options.h"

using namespace lumora_fuse;

namespace {

// ---------------------------------------------------------------------------
// Process-wide state shared with the signal handlers.

volatile sig_atomic_t gCancelRequested = 0;
volatile sig_atomic_t gChildPid = 0;  // the process running the fusion, while it runs
int gStderr = STDERR_FILENO;          // the terminal's error stream (fd 2 may be redirected)
int gCaptureFd = -1;                  // holds the library's commentary when it is kept quiet
char gTempPath[PATH_MAX] = "";        // the temporary output file, removed on any early end
volatile sig_atomic_t gTempPathSet = 0;

void writeAll(int fd, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        size -= size_t(n);
    }
}

void say(const std::string &line) {
    const std::string text = "lumora-fuse: " + line + "\n";
    writeAll(gStderr, text.data(), text.size());
}

void removeTemp() {
    if (gTempPathSet) {
        unlink(gTempPath);
        gTempPathSet = 0;
    }
}

// First Ctrl-C: ask the fusion to stop at the library's next cancellation
// point. A second one ends everything at once, still leaving no file behind.
void onCancelSignal(int) {
    if (gCancelRequested) {
        if (gChildPid > 0)
            kill(gChildPid, SIGKILL);
        if (gTempPathSet)
            unlink(gTempPath);
        static const char text[] = "\nlumora-fuse: cancelled; nothing written\n";
        writeAll(gStderr, text, sizeof text - 1);
        _exit(130);
    }
    const int savedErrno = errno;
    gCancelRequested = 1;
    if (gChildPid > 0)
        kill(gChildPid, SIGINT);
    errno = savedErrno;
}

// In the fusion process a signal only raises the flag that the progress
// callback hands to the library.
void onChildCancelSignal(int) { gCancelRequested = 1; }

// Should the tool itself die, it leaves no temporary file.
void onFatalSignal(int sig) {
    if (gTempPathSet)
        unlink(gTempPath);
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
// Progress: the library reports the fraction of one call; the tool maps it
// onto its share of the whole run.

struct Progress {
    bool bar = false;
    double base = 0.0, span = 1.0;
    int drawn = -1;
    bool completed = false;  // the library's final report (1.0) came
};
Progress gProgress;

void drawBar(double fraction) {
    const int percent = int(std::clamp(fraction, 0.0, 1.0) * 100.0);
    if (percent == gProgress.drawn)
        return;
    gProgress.drawn = percent;
    const int width = 30, filled = percent * width / 100;
    std::string text = "\rfusing [" + std::string(size_t(filled), '#') +
                       std::string(size_t(width - filled), '.') + "] ";
    char tail[8];
    snprintf(tail, sizeof tail, "%3d%%", percent);
    text += tail;
    writeAll(gStderr, text.data(), text.size());
}

void clearBar() {
    if (gProgress.bar) {
        static const char text[] = "\r\033[K";
        writeAll(gStderr, text, sizeof text - 1);
        gProgress.drawn = -1;
    }
}

void onProgress(int *cancel, float amount) {
    if (amount >= 1.0f)
        gProgress.completed = true;
    if (gCancelRequested && cancel)
        *cancel = 1;
    if (gProgress.bar)
        drawBar(gProgress.base + gProgress.span * amount);
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
// to 50 MP, 19% at 1 MP.
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

std::string directoryOf(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string extensionOf(const std::string &path) {
    const size_t dot = path.find_last_of('.');
    return path.substr(dot);
}

// A hidden temporary file beside the output, so that the final rename stays
// on one file system and a reader never meets a half-written picture.
bool createTemp(const std::string &output, std::string &error) {
    const std::string pattern = directoryOf(output) + "/.lumora-fuse-XXXXXX" + extensionOf(output);
    if (pattern.size() >= sizeof gTempPath) {
        error = "path too long";
        return false;
    }
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemps(name.data(), int(extensionOf(output).size()));
    if (fd < 0) {
        error = strerror(errno);
        return false;
    }
    close(fd);
    memcpy(gTempPath, name.data(), name.size());
    gTempPathSet = 1;
    return true;
}

// Some file systems report a full disk or a failed device only when the data
// reach it: the sync's verdict counts as much as the writes'.
bool finishTemp(const std::string &output, std::string &error) {
    const mode_t mask = umask(0);
    umask(mask);
    const int fd = open(gTempPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = strerror(errno);
        return false;
    }
    fchmod(fd, 0666 & ~mask);
    // A file system that cannot sync at all (EINVAL, ENOTSUP) is no failure.
    const bool synced = fsync(fd) == 0 || errno == EINVAL || errno == ENOTSUP;
    const int syncErrno = errno;
    close(fd);
    if (!synced) {
        error = strerror(syncErrno);
        return false;
    }
    if (gCancelRequested)
        return false;
    if (rename(gTempPath, output.c_str()) != 0) {
        error = strerror(errno);
        return false;
    }
    gTempPathSet = 0;
    return true;
}

struct FusionRun {
    const std::vector<const Image *> *exposures;  // darkest first
    Loupe region;                                 // the part to fuse (whole picture if not enabled)
    int pictureWidth = 0, pictureHeight = 0;
    const float *params = nullptr;
    int threads = 1;
    int depth = 8;
    bool captureCommentary = true;
};

enum class FusionResult { Done, Cancelled, Failed };

// Exit statuses of the fusion process.
enum ChildStatus { kChildDone = 0, kChildCancelled = 3, kChildIncomplete = 4, kChildRefused = 5 };

// The result lives in memory shared with the fusion process.
struct SharedBuffer {
    unsigned char *data = nullptr;
    size_t size = 0;
    SharedBuffer() = default;
    SharedBuffer(const SharedBuffer &) = delete;
    SharedBuffer &operator=(const SharedBuffer &) = delete;
    ~SharedBuffer() {
        if (data)
            munmap(data, size);
    }
};

// Runs in the fusion process.
int fuseInChild(const FusionRun &run, unsigned char *out) {
    setHandler(SIGINT, onChildCancelSignal, 0);
    setHandler(SIGTERM, onChildCancelSignal, 0);
    for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        setHandler(sig, SIG_DFL, 0);
    gTempPathSet = 0;
    // Every library call writes its commentary on the standard error stream;
    // a normal run keeps it in the memory file instead.
    if (run.captureCommentary && gCaptureFd >= 0)
        dup2(gCaptureFd, STDERR_FILENO);

    FusionJob job;
    job.exposures = *run.exposures;
    job.region = run.region;
    job.params = run.params;
    job.threads = run.threads;
    job.depth = run.depth;
    job.progress = onProgress;
    gProgress.base = 0.0;
    gProgress.span = 1.0;
    const FusionStatus status = fuseExposures(job, out);
    clearBar();
    if (gCancelRequested)
        return kChildCancelled;
    if (status == FusionStatus::Refused)
        return kChildRefused;
    return status == FusionStatus::Done ? kChildDone : kChildIncomplete;
}

// The last line the library wrote, when its commentary was kept.
std::string lastCommentaryLine() {
    std::string text;
    char buffer[4096];
    ssize_t n;
    if (gCaptureFd < 0 || lseek(gCaptureFd, 0, SEEK_SET) != 0)
        return text;
    while ((n = read(gCaptureFd, buffer, sizeof buffer)) > 0)
        text.append(buffer, size_t(n));
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    const size_t newline = text.find_last_of('\n');
    return newline == std::string::npos ? text : text.substr(newline + 1);
}

// The library runs in a process of its own: should it stop the process on
// one of its internal checks, the tool survives to say so and to clean up.
FusionResult fuse(const FusionRun &run, SharedBuffer &out, std::string &error) {
    out.size = size_t(run.region.width) * run.region.height * 3 * (run.depth / 8);
    void *memory = mmap(nullptr, out.size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        out.size = 0;
        error = std::string("cannot allocate the result: ") + strerror(errno);
        return FusionResult::Failed;
    }
    out.data = static_cast<unsigned char *>(memory);
    if (gCaptureFd >= 0 && (ftruncate(gCaptureFd, 0) != 0 || lseek(gCaptureFd, 0, SEEK_SET) != 0)) {
        error = "cannot keep the library's commentary";
        return FusionResult::Failed;
    }
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
        error = std::string("cannot start the fusion: ") + strerror(errno);
        return FusionResult::Failed;
    }
    if (pid == 0)
        _exit(fuseInChild(run, out.data));
    gChildPid = pid;
    if (gCancelRequested)
        kill(pid, SIGINT);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    gChildPid = 0;
    if (gCancelRequested)
        return FusionResult::Cancelled;
    if (WIFEXITED(status)) {
        switch (WEXITSTATUS(status)) {
        case kChildDone: return FusionResult::Done;
        case kChildCancelled: return FusionResult::Cancelled;
        case kChildRefused: error = "the fusion library refused the exposures"; return FusionResult::Failed;
        default: error = "the fusion did not complete (out of memory?)"; return FusionResult::Failed;
        }
    }
    const std::string last = lastCommentaryLine();
    error = "the fusion failed with these exposures and settings: the library stopped (" +
            (last.empty() ? std::string(strsignal(WTERMSIG(status))) : last) +
            "); settings nearer the defaults may work";
    return FusionResult::Failed;
}

int usageError(const std::string &line) {
    say(line);
    static const char hint[] = "Try 'lumora-fuse --help' for more information.\n";
    writeAll(gStderr, hint, sizeof hint - 1);
    return 2;
}

int cancelled() {
    clearBar();
    removeTemp();
    say("cancelled; nothing written");
    return 130;
}

int run(const Options &options) {
    // Inputs. Every header is checked before its pixels are decoded: the
    // first against the memory the whole fusion needs, the others against
    // the first one's size.
    std::vector<Image> images(options.images.size());
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
        if (gCancelRequested)
            return cancelled();
    }
    // The size was judged at the first header (fusionSizeAllowed, memoryAllows).
    const int width = images[0].width, height = images[0].height;
    Loupe region = options.loupe;
    if (region.enabled) {
        if (region.width < 1 || region.height < 1) {
            return usageError("--loupe: region " + std::to_string(region.width) + "x" +
                              std::to_string(region.height) + " is empty (W and H must be at least 1)");
        }
        if (long(region.x) + region.width > width || long(region.y) + region.height > height) {
            return usageError("--loupe: region " + std::to_string(region.width) + "x" +
                              std::to_string(region.height) + " at " + std::to_string(region.x) + "," +
                              std::to_string(region.y) + " does not fit in the " + std::to_string(width) + "x" +
                              std::to_string(height) + " picture");
        }
    } else {
        region.width = width;
        region.height = height;
    }

    // The output: never one of the inputs, and writable before hours of work.
    struct stat outStat;
    if (stat(options.output.c_str(), &outStat) == 0) {
        if (S_ISDIR(outStat.st_mode)) {
            say(options.output + ": is a directory");
            return 1;
        }
        for (const std::string &input : options.images) {
            struct stat inStat;
            if (stat(input.c_str(), &inStat) == 0 && inStat.st_dev == outStat.st_dev &&
                inStat.st_ino == outStat.st_ino) {
                return usageError(options.output + ": is one of the input images; refusing to write over it");
            }
        }
    }
    std::string error;
    if (!createTemp(options.output, error)) {
        say(options.output + ": cannot write the output: " + error);
        return 1;
    }

    const std::vector<int> order = brightnessOrder(images);
    std::vector<const Image *> exposures;
    for (int i : order)
        exposures.push_back(&images[i]);
    // Metadata come from the middle exposure, or the brighter of two.
    const std::string &reference = options.images[order[1]];

    FusionRun fusion;
    fusion.exposures = &exposures;
    fusion.region = region;
    fusion.pictureWidth = width;
    fusion.pictureHeight = height;
    fusion.params = options.params;
    fusion.threads = options.threads > 0 ? options.threads : std::min(availableCores(), kMaxThreads);
    fusion.depth = options.depth;
    fusion.captureCommentary = !options.verbose;
    gProgress.bar = !options.quiet && !options.verbose && isatty(gStderr);

    SharedBuffer result;
    const FusionResult fused = fuse(fusion, result, error);
    clearBar();
    if (fused == FusionResult::Cancelled)
        return cancelled();
    if (fused == FusionResult::Failed) {
        removeTemp();
        say(error);
        return 1;
    }
    images.clear();

    if (!writeImage(gTempPath, options.outputFormat, region.width, region.height, options.depth, result.data,
                    options.quality, error)) {
        removeTemp();
        say(options.output + ": cannot write the output: " + error);
        return 1;
    }
    if (gCancelRequested)
        return cancelled();
    // A metadata write that fails leaves the file cut short: the pixels are
    // written again without metadata.
    const bool copied = copyMetadata(reference, gTempPath, region.width, region.height, error);
    if (!copied) {
        std::string writeError;
        if (!writeImage(gTempPath, options.outputFormat, region.width, region.height, options.depth, result.data,
                        options.quality, writeError)) {
            removeTemp();
            say(options.output + ": cannot write the output: " + writeError);
            return 1;
        }
        say(options.output + ": metadata of " + reference + " not copied: " + error);
    }
    if (!finishTemp(options.output, error)) {
        if (gCancelRequested)
            return cancelled();
        removeTemp();
        say(options.output + ": cannot write the output: " + error);
        return 1;
    }
    return 0;
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
    if (!options.verbose)
        gCaptureFd = memfd_create("lumora-fuse-commentary", MFD_CLOEXEC);
    return run(options);
}
