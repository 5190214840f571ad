// console.cpp: the tool's lines, written whole on the error stream.
#include "console.h"

#include <unistd.h>

#include "progress_bar.h"

namespace lumora_fuse {
namespace {
int gConsoleFd = STDERR_FILENO;
}

void setConsoleFd(int fd) { gConsoleFd = fd; }
int consoleFd() { return gConsoleFd; }

void say(const std::string &line) {
    const std::string text = "lumora-fuse: " + line + "\n";
    writeAll(gConsoleFd, text.data(), text.size());
}

int usageError(const std::string &line) {
    say(line);
    static const char hint[] = "Try 'lumora-fuse --help' for more information.\n";
    writeAll(gConsoleFd, hint, sizeof hint - 1);
    return 2;
}

}  // namespace lumora_fuse
