// Float tables that stand in for transcendental calls in the filter's
// per-pixel loops: the range weight, the log and the power-of-two tables.
#include <cmath>

#include "tables/tables.h"

namespace lumora {

int fusion2luts(int maxVal) {
    // Deliberate: one size for every bit depth, the limit the colour-distance
    // filter clamps its index against.
    return EXP_LUT_ENTRIES;
}

void fusion2lut(float sigma, int maxVal, float *lut) {
    const float sigmaSquared = sigma * sigma;
    const int max = fusion2luts(maxVal);
    for (int i = 0; i < max; i++) {
        // Kept: the index is scaled by 1/65536 before it meets sigma^2, so
        // sigma counts in units of 256 of whatever indexes the table.
        const float distSqd = (float)(i / 65536.0);
        const float arg = (-distSqd) / sigmaSquared;
        lut[i] = (float)std::exp((double)arg);
    }
}

void makeLogLUT(float *lut) {
    for (int i = 0; i < LOG_LUT_ENTRIES; i++) lut[i] = (float)std::log((double)(i + 1));
}

void makeRgbeExpLut(float *lut) {
    // Entry 0 is the subnormal 2^-128 and must not be flushed to zero.
    for (int i = 0; i < RGBE_EXP_LUT_ENTRIES; i++) lut[i] = (float)std::ldexp(1.0, i - 128);
}

}  // namespace lumora
