// lumora_fuse.cpp: the lumora-fuse command. Parses the command line and
// hands it to the run (run.h), whose outcome is the exit status.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "console.h"
#include "options.h"
#include "run.h"
#include "signals.h"

using namespace lumora_fuse;

int main(int argc, char **argv) {
    // The tool's lines keep the terminal even where a run sends fd 2
    // elsewhere.
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved >= 0)
        setConsoleFd(saved);

    Options options;
    std::string message;
    const int parsed = parseOptions(argc, argv, options, message);
    if (parsed == 0) {  // --help or --version
        fputs(message.c_str(), stdout);
        return fflush(stdout) == 0 ? 0 : 1;
    }
    if (parsed != kContinue)
        return usageError(message);
    installToolSignalHandlers();
    return runTool(options).status;
}
