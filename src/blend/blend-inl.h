// Highway helpers shared by the SIMD exposure weights and reconstruction:
// loading pixels and their integer luminance. Included once per instruction
// set by each of those files (Highway's per-target include guard).

#if defined(LUMORA_BLEND_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMORA_BLEND_INL_H_
#undef LUMORA_BLEND_INL_H_
#else
#define LUMORA_BLEND_INL_H_
#endif

#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using DI = hn::RebindToSigned<DF>;
using D8 = hn::Rebind<uint8_t, DF>;
using VF = hn::Vec<DF>;
using VI = hn::Vec<DI>;

// The three samples of N pixels as int lanes.
HWY_INLINE void LoadPixels(const unsigned char *p, VI &r, VI &g, VI &b) {
    hn::Vec<D8> r8, g8, b8;
    hn::LoadInterleaved3(D8(), p, r8, g8, b8);
    r = hn::PromoteTo(DI(), r8);
    g = hn::PromoteTo(DI(), g8);
    b = hn::PromoteTo(DI(), b8);
}

// (r + g + b) / 3 of N pixels: the float quotient of a sum up to 765 never
// rounds across an integer (checked at compile time below), so truncating it
// is the integer division.
HWY_INLINE VI Luminance(const unsigned char *p) {
    VI r, g, b;
    LoadPixels(p, r, g, b);
    const VF sum = hn::ConvertTo(DF(), hn::Add(hn::Add(r, g), b));
    return hn::ConvertTo(DI(), hn::Div(sum, hn::Set(DF(), 3.0f)));
}

constexpr bool floatThirdIsExact() {
    for (int sum = 0; sum <= 3 * 255; sum++)
        if ((int)((float)sum / 3.0f) != sum / 3) return false;
    return true;
}
static_assert(floatThirdIsExact(), "the float quotient must truncate to the integer one");

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#endif  // LUMORA_BLEND_INL_H_
