// cancel.h: the user's request to stop a run (Ctrl-C, SIGTERM), raised by the
// signal handlers and read by the steps of the run and, in the fusion
// process, by the library's progress callback.
#pragma once

#include <csignal>

namespace lumora_fuse {

namespace detail {
inline volatile std::sig_atomic_t cancelRequested = 0;
}

inline bool cancelRequested() { return detail::cancelRequested != 0; }

// Async-signal-safe. Returns whether a request had come before.
inline bool requestCancel() {
    const bool before = detail::cancelRequested != 0;
    detail::cancelRequested = 1;
    return before;
}

}  // namespace lumora_fuse
