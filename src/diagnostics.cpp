// Diagnostics: the assertion report, profiling stubs, debug switches and the
// debug image dumps.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "internal.h"

namespace lumora {

void assertionFailed(const char *expression, int line, const char *function) {
    // The usual assertion format, with the module's name as the source.
    std::fprintf(stderr, "%s: BilateralFilter:%d: %s: Assertion `%s' failed.\n",
                 program_invocation_short_name, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

}  // namespace lumora
