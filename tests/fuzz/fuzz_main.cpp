// fuzz_main.cpp: a libFuzzer target around one function of fuzz_entries.h,
// named by LUMORA_FUZZ_ENTRY at compile time.
#include <cstdio>
#include <cstdlib>

#include "fuzz_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string problem = lumora_fuzz::LUMORA_FUZZ_ENTRY(data, size);
    if (!problem.empty()) {
        fprintf(stderr, "lumora fuzz: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
