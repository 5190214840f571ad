// fusion_child.cpp: fork, shared memory, the child's exit status and
// commentary, and the cancellation passed on to it.
#include "fusion_child.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "cancel.h"
#include "fusion_call.h"
#include "signals.h"

namespace lumora_fuse {
namespace {

volatile sig_atomic_t gChildPid = 0;  // the process running the fusion, while it runs
int gCaptureFd = -1;                  // holds the library's commentary when it is kept quiet
ProgressBar *gChildBar = nullptr;     // in the fusion process: the bar to draw

// Exit statuses of the fusion process.
enum ChildStatus { kChildDone = 0, kChildCancelled = 3, kChildIncomplete = 4, kChildRefused = 5 };

// In the fusion process a signal only raises the flag that the progress
// callback hands to the library.
void onChildCancelSignal(int) { requestCancel(); }

void onChildProgress(int *cancel, float amount) {
    if (cancelRequested() && cancel)
        *cancel = 1;
    if (gChildBar)
        gChildBar->draw(amount);
}

FusionJob jobOf(const FusionRun &run, ProgressCallback progress) {
    FusionJob job;
    job.exposures = *run.exposures;
    job.region = run.region;
    job.params = run.params;
    job.threads = run.threads;
    job.depth = run.depth;
    job.device = run.device;
    job.progress = progress;
    return job;
}

// fork() from the tool, with its output streams flushed and SIGINT and
// SIGTERM blocked until the new process has run startForked; mask receives
// the mask from before (the tool restores it after the fork), parent the
// tool's process.
pid_t forkFromTool(sigset_t &mask, pid_t &parent) {
    fflush(stdout);
    fflush(stderr);
    sigset_t cancelSignals;
    sigemptyset(&cancelSignals);
    sigaddset(&cancelSignals, SIGINT);
    sigaddset(&cancelSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &cancelSignals, &mask);
    parent = getpid();
    return fork();
}

// The start of a process forked from the tool (parent) with the cancel
// signals blocked: the tool's handlers would remove its output file, so
// SIGINT and SIGTERM get onCancel and the fatal signals their default
// before mask comes back. False when the tool has gone already.
bool startForked(pid_t parent, const sigset_t &mask, void (*onCancel)(int), bool captureCommentary) {
    setSignalHandler(SIGINT, onCancel);
    setSignalHandler(SIGTERM, onCancel);
    for (int sig : kFatalSignals)
        setSignalHandler(sig, SIG_DFL);
    // A tool killed outright cannot stop this process, which would go on
    // using every core for a result no one reads: the kernel kills it
    // instead. The tool may have died before the request was made; then
    // the process has been handed to another parent already.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)
        return false;
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    // Every library call writes its commentary on the standard error stream;
    // a normal run keeps it in the memory file instead.
    if (captureCommentary && gCaptureFd >= 0)
        dup2(gCaptureFd, STDERR_FILENO);
    return true;
}

// Runs in the fusion process.
int childMain(const FusionRun &run, unsigned char *out, pid_t parent, const sigset_t &mask) {
    if (!startForked(parent, mask, onChildCancelSignal, run.captureCommentary))
        return kChildIncomplete;
    FusionJob job = jobOf(run, onChildProgress);
    job.releaseExposures = true;  // this process's copies: a fork's, read once
    gChildBar = run.bar;
    job.fusedOn = reinterpret_cast<char *>(out + run.region.width * size_t(run.region.height) * 3 * (run.depth / 8));
    const FusionStatus status = fuseExposures(job, out);
    if (run.bar)
        run.bar->clear();
    if (cancelRequested())
        return kChildCancelled;
    if (status == FusionStatus::Refused)
        return kChildRefused;
    return status == FusionStatus::Done ? kChildDone : kChildIncomplete;
}

// An empty memory file for the commentary of this run, made at the first.
bool prepareCommentary(bool capture) {
    if (capture && gCaptureFd < 0)
        gCaptureFd = memfd_create("lumora-fuse-commentary", MFD_CLOEXEC);
    return gCaptureFd < 0 || (ftruncate(gCaptureFd, 0) == 0 && lseek(gCaptureFd, 0, SEEK_SET) == 0);
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

FusionResult resultOf(int status, std::string &error) {
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

}  // namespace

SharedBuffer::~SharedBuffer() {
    if (data)
        munmap(data, size + kDeviceNameBytes);
}

void signalFusionChild(int sig) {
    if (gChildPid > 0)
        kill(gChildPid, sig);
}

namespace {

// The result's memory, shared with a fusion process, and an empty
// commentary file.
bool prepareRun(const FusionRun &run, SharedBuffer &out, std::string &error) {
    out.size = size_t(run.region.width) * run.region.height * 3 * (run.depth / 8);
    void *memory = mmap(nullptr, out.size + kDeviceNameBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        out.size = 0;
        error = std::string("cannot allocate the result: ") + strerror(errno);
        return false;
    }
    out.data = static_cast<unsigned char *>(memory);
    out.fusedOn = reinterpret_cast<char *>(out.data + out.size);
    if (!prepareCommentary(run.captureCommentary)) {
        error = "cannot keep the library's commentary";
        return false;
    }
    return true;
}

ProgressCallback gHereProgress = nullptr;

void onHereProgress(int *cancel, float amount) {
    if (gHereProgress)
        gHereProgress(cancel, amount);
    if (cancelRequested() && cancel)
        *cancel = 1;
}

}  // namespace

FusionResult fuseHere(const FusionRun &run, SharedBuffer &out, std::string &error) {
    if (!prepareRun(run, out, error))
        return FusionResult::Failed;
    const int savedStderr = run.captureCommentary && gCaptureFd >= 0 ? dup(STDERR_FILENO) : -1;
    if (savedStderr >= 0) {
        fflush(stderr);
        dup2(gCaptureFd, STDERR_FILENO);
    }
    FusionJob job = jobOf(run, onHereProgress);
    job.fusedOn = out.fusedOn;
    gHereProgress = run.progress;
    const FusionStatus status = fuseExposures(job, out.data);
    gHereProgress = nullptr;
    if (savedStderr >= 0) {
        fflush(stderr);
        dup2(savedStderr, STDERR_FILENO);
        close(savedStderr);
    }
    if (status == FusionStatus::Done)
        return FusionResult::Done;
    if (status == FusionStatus::Refused) {
        error = "the fusion library refused the exposures";
        return FusionResult::Failed;
    }
    if (cancelRequested())
        return FusionResult::Cancelled;
    error = "the fusion did not complete (out of memory?)";
    return FusionResult::Failed;
}

namespace {

// --device auto, settled once for the tool's run in a process of its own:
// loading OpenCL costs a process its runtimes' start even where auto takes
// none of their devices (PoCL, which auto passes over as a CPU, maps and
// touches its compiler: 62 MiB on the 512x384 sample). The fusing
// processes then load OpenCL only for the device auto chose, which they
// check again on its first use as every process does. The probe starts as
// the fusion process does and dies with the tool; a failed probe leaves
// auto to the fusing process as before.
int autoDevice(bool captureCommentary) {
    static int chosen = LUMORA_DEVICE_AUTO;
    static bool settled = false;
    if (settled)
        return chosen;
    settled = true;
    int fds[2];
    if (pipe(fds) != 0)
        return chosen;
    sigset_t mask;
    pid_t parent;
    const pid_t pid = forkFromTool(mask, parent);
    if (pid == 0) {
        close(fds[0]);
        if (!startForked(parent, mask, SIG_DFL, captureCommentary))
            _exit(1);
        const int device = lumora_use_device(LUMORA_DEVICE_AUTO);
        _exit(write(fds[1], &device, sizeof device) == ssize_t(sizeof device) ? 0 : 1);
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    close(fds[1]);
    int device = 0;
    ssize_t n = -1;
    if (pid > 0) {
        while ((n = read(fds[0], &device, sizeof device)) < 0 && errno == EINTR) {
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    close(fds[0]);
    if (n == ssize_t(sizeof device))
        chosen = device;
    return chosen;
}

}  // namespace

FusionResult fuseInChild(const FusionRun &asked, SharedBuffer &out, std::string &error) {
    if (!prepareRun(asked, out, error))
        return FusionResult::Failed;
    FusionRun run = asked;
    if (run.device == LUMORA_DEVICE_AUTO)
        run.device = autoDevice(run.captureCommentary);
    sigset_t mask;
    pid_t parent;
    const pid_t pid = forkFromTool(mask, parent);
    if (pid == 0)
        _exit(childMain(run, out.data, parent, mask));
    const int forkErrno = errno;
    gChildPid = pid > 0 ? pid : 0;
    sigprocmask(SIG_SETMASK, &mask, nullptr);  // a Ctrl-C held back meanwhile now reaches the child
    if (pid < 0) {
        error = std::string("cannot start the fusion: ") + strerror(forkErrno);
        return FusionResult::Failed;
    }
    if (cancelRequested())
        kill(pid, SIGINT);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    gChildPid = 0;
    if (cancelRequested())
        return FusionResult::Cancelled;
    return resultOf(status, error);
}

}  // namespace lumora_fuse
