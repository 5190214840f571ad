// core.h: what every part of the module shares: the always-on assertion,
// the one allocator, the shared records and constants. The shared library
// exports none of this (hidden visibility and a version script); the tests
// link the static core and reach it through the folders' headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "BilateralFilter.h"
#include "core/layout.h"

// Always-on assertion, whatever NDEBUG says. The message names the module
// ("BilateralFilter") rather than the file the code lives in, so that a host
// sees one source name however the module is split into files.
#define BF_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : ::lumora::assertionFailed(#expr, __LINE__, __func__))
// Same, with the expression text spelled out where it must read as written in
// C (a null pointer test prints as "p != ((void *)0)").
#define BF_ASSERT_TEXT(expr, text) \
    ((expr) ? static_cast<void>(0) : ::lumora::assertionFailed(text, __LINE__, __func__))
// Same, reporting under a given function name: checks made by a helper on
// behalf of an entry point report as that entry point (the reconstruction's
// checks read as hx_fusion2's).
#define BF_ASSERT_IN(expr, function) \
    ((expr) ? static_cast<void>(0) : ::lumora::assertionFailed(#expr, __LINE__, function))

namespace lumora {

[[noreturn]] void assertionFailed(const char *expression, int line, const char *function);

// ---------------------------------------------------------------------------
// Allocation (allocation.cpp). Every buffer of the module comes from here and
// goes back through release, so that a test build (LUMORA_ALLOCATION_FAULTS)
// can fail any one allocation and count what is still held.

#ifdef LUMORA_ALLOCATION_FAULTS
void *allocate(size_t bytes);
void *allocateZeroed(size_t count, size_t size);
void release(void *block);

struct AllocationFaults {
    long failAt;        // the allocation (counted from 1 since the reset) that fails; 0: none
    long count;         // allocations asked for since the reset
    long live;          // blocks handed out and not yet released, since the reset
    size_t failedSize;  // bytes the failed allocation asked for
};
// Starts counting afresh; the failAt-th allocation from now on fails.
void resetAllocationFaults(long failAt);
AllocationFaults allocationFaults();
#else
inline void *allocate(size_t bytes) { return std::malloc(bytes); }
inline void *allocateZeroed(size_t count, size_t size) { return std::calloc(count, size); }
inline void release(void *block) { std::free(block); }
#endif

// ---------------------------------------------------------------------------
// Shared types

// One sample of a sparse kernel. Entries are stored column-outer, row-inner.
struct KernelEntry {
    int xpos;      // column offset from the kernel window's top-left corner
    int ypos;      // row offset, likewise
    float factor;  // weight
    float L;       // working space of the colour-distance filter
    float A;
    float B;
};

struct LABData {
    float l;
    float a;
    float b;
};

// An image with a mirrored outside border of borderWidth pixels, either
// built into a larger copy (mainImageHasBorders = 1) or kept in four separate
// buffers beside the caller's image (mainImageHasBorders = 0).
struct ImageWithBorder {
    unsigned char *inputImage = nullptr;  // caller's image, not owned
    unsigned char *image = nullptr;       // what readers use (see above)
    int borderWidth = 0;
    int mainImageHasBorders = 0;
    unsigned char *topBorder = nullptr;
    unsigned char *bottomBorder = nullptr;
    unsigned char *leftBorder = nullptr;
    unsigned char *rightBorder = nullptr;
};

// ---------------------------------------------------------------------------
// Constants

constexpr int SPATIAL_KERNEL_APPROX_DEFAULT = 6;  // ordinary kernels
constexpr int SPATIAL_KERNEL_APPROX_FINE = 13;    // fine kernels
// Defined for the record; nothing reads them.
inline constexpr int SPATIAL_KERNEL_APPROX_COEFF[2] = {6, 6};
inline constexpr int SPATIAL_KERNEL_APPROX_COEFF_FINE[2] = {12, 13};

// Entries of the range table; the colour-distance filter clamps its squared
// Lab distance just below this, so the two must stay equal.
constexpr int EXP_LUT_ENTRIES = 20000;
constexpr int LOG_LUT_ENTRIES = 65536;
constexpr int RGBE_EXP_LUT_ENTRIES = 256;

// ---------------------------------------------------------------------------
// Helpers

// Contiguous block of n items for thread t of a team of T, as a static
// schedule without chunk size shares them: the first n mod T threads get one
// item more.
inline void staticBlock(int n, int t, int T, int *begin, int *end) {
    const int q = n / T;
    const int m = n % T;
    *begin = t < m ? t * (q + 1) : t * q + m;
    *end = *begin + (t < m ? q + 1 : q);
}

}  // namespace lumora
