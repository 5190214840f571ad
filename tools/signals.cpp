// signals.cpp: the tool's signal handlers.
#include "signals.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cancel.h"
#include "console.h"
#include "fusion_child.h"
#include "output_file.h"
#include "progress_bar.h"

namespace lumora_fuse {

namespace {

void onCancelSignal(int) {
    const int savedErrno = errno;
    if (requestCancel()) {
        signalFusionChild(SIGKILL);
        OutputFile::discardFromSignal();
        static const char text[] = "\nlumora-fuse: cancelled; nothing written\n";
        writeAll(consoleFd(), text, sizeof text - 1);
        _exit(130);
    }
    signalFusionChild(SIGINT);
    errno = savedErrno;
}

void onFatalSignal(int sig) {
    OutputFile::discardFromSignal();
    signal(sig, SIG_DFL);
    raise(sig);
}

}  // namespace

void setSignalHandler(int sig, void (*handler)(int), int flags) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = handler;
    sa.sa_flags = flags;
    sigaction(sig, &sa, nullptr);
}

void installToolSignalHandlers() {
    setSignalHandler(SIGINT, onCancelSignal);
    setSignalHandler(SIGTERM, onCancelSignal);
    for (int sig : kFatalSignals)
        setSignalHandler(sig, onFatalSignal, SA_RESETHAND);
}

}  // namespace lumora_fuse
