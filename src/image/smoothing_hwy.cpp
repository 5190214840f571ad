// Vectorised rows of the 8-bit 3x3 smoothing, with the plain rows' bytes.
//
// Compiled once per instruction set (Highway's foreach_target); the best one
// the processor supports is chosen at run time.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/smoothing_hwy.cpp"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <algorithm>

#include "image/image.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One interior row of the 8-bit 3x3 smoothing. The nine-sample sums (at
// most 9 * 255 = 2295) fit 16 bits, and (sum * 7282) >> 16 equals sum / 9
// for every sum up to 2295 (checked below at compile time), so the
// truncating division is exact in 16-bit lanes.
void SmoothRow8(const unsigned char *prev, const unsigned char *cur, const unsigned char *next,
                unsigned char *out, int rowStride, int spp) {
    const hn::ScalableTag<uint16_t> d16;
    const hn::Rebind<uint8_t, decltype(d16)> d8;
    const hn::Rebind<int16_t, decltype(d16)> di16;
    const int N = (int)hn::Lanes(d16);
    const auto reciprocal = hn::Set(d16, 7282);
    const int end = rowStride - spp;  // first sample of the last pixel
    for (int i = 0; i < std::min(spp, rowStride); i++) out[i] = cur[i];
    int i = spp;
    for (; i + N <= end; i += N) {
        auto sum = hn::Add(hn::PromoteTo(d16, hn::LoadU(d8, prev + i - spp)),
                           hn::PromoteTo(d16, hn::LoadU(d8, prev + i)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, prev + i + spp)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, cur + i - spp)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, cur + i)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, cur + i + spp)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, next + i - spp)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, next + i)));
        sum = hn::Add(sum, hn::PromoteTo(d16, hn::LoadU(d8, next + i + spp)));
        const auto mean = hn::MulHigh(sum, reciprocal);
        hn::StoreU(hn::DemoteTo(d8, hn::BitCast(di16, mean)), d8, out + i);
    }
    for (; i < end; i++) {
        const int sum = prev[i - spp] + prev[i] + prev[i + spp] + cur[i - spp] + cur[i] +
                        cur[i + spp] + next[i - spp] + next[i] + next[i + spp];
        out[i] = (unsigned char)(sum / 9);
    }
    for (int k = std::max(spp, end); k < rowStride; k++) out[k] = cur[k];
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumora {
namespace simd {

HWY_EXPORT(SmoothRow8);

constexpr bool reciprocalIsExact() {
    for (unsigned sum = 0; sum <= 9 * 255; sum++)
        if (((sum * 7282u) >> 16) != sum / 9) return false;
    return true;
}
static_assert(reciprocalIsExact(), "the 16-bit reciprocal of 9 must divide exactly");

void smoothRow8(const unsigned char *prev, const unsigned char *cur, const unsigned char *next,
                unsigned char *out, int rowStride, int spp) {
    HWY_DYNAMIC_DISPATCH(SmoothRow8)(prev, cur, next, out, rowStride, spp);
}

}  // namespace simd

}  // namespace lumora
#endif  // HWY_ONCE
