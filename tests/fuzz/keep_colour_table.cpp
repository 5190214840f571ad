// keep_colour_table.cpp: fuzz_fusion fills the library's 16-million-entry
// RGB-to-CIELab table once. Every fusion call would refill it with the same
// values whatever the input; filled once, the fuzzer runs a few hundred inputs
// a minute instead of a handful, with exactly the same results.
#include "core/switches.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    lumora::keepFilledLabTable = true;
    return 0;
}
