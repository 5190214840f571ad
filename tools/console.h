// console.h: the lines lumora-fuse says on the terminal's error stream.
//
// Every line starts "lumora-fuse: ". They go to a copy of the error stream
// taken at start, so that the fusion library's own commentary, which a run
// may send elsewhere through fd 2, never mixes with them.
#pragma once

#include <string>

namespace lumora_fuse {

// The stream the lines go to (by default the standard error stream).
void setConsoleFd(int fd);
int consoleFd();

// "lumora-fuse: LINE\n", written whole.
void say(const std::string &line);
// The same, then the hint on --help; returns 2, the usage error's status.
int usageError(const std::string &line);

}  // namespace lumora_fuse
