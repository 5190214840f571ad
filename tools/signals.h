// signals.h: what the tool and its fusion process do on a signal.
#pragma once

#include <csignal>

namespace lumora_fuse {

// The signals that end a process in error; on any of them the tool removes
// its temporary output before dying.
inline constexpr int kFatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// sigaction with an empty mask.
void setSignalHandler(int sig, void (*handler)(int), int flags = 0);

// The tool's handlers. First Ctrl-C (or SIGTERM): ask the fusion to stop at
// the library's next cancellation point. A second one ends everything at
// once, still leaving no file behind. A fatal signal removes the temporary
// output, then kills the tool as it would have.
void installToolSignalHandlers();

}  // namespace lumora_fuse
