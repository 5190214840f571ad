// SIMD exposure weights: the driver's loop of calculatePoids8Alt, the
// highlight shift and the byte store, with the lanes of a vector being
// neighbouring pixels. Every lane runs its pixel's arithmetic of the
// per-pixel code operation for operation (the same table look-ups, separate
// multiplies and adds in the same order, IEEE division, truncating
// conversions), so each pixel gets the reference's bytes. A vector where a
// lane would fail the weight check, and the pixels that do not fill a
// vector, go through the reference rawWeightPixels, which aborts at the same
// pixel with the same words.
//
// Compiled once per instruction set (Highway's foreach_target); the best one
// the processor supports is chosen at run time.

#include <cstddef>
#include <cstdint>

#include "blend/blend.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "blend/exposure_weights_hwy.cpp"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "blend/blend-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {

// Weights of at most 255 * 1.0 and never negative: the saturating demotion
// stores the truncated value's low 8 bits.
HWY_INLINE void StoreWeightBytes(VF poids, unsigned char *out) {
    const VI v = hn::ConvertTo(DI(), hn::Mul(poids, hn::Set(DF(), 255.0f)));
    hn::StoreU(hn::DemoteTo(D8(), v), D8(), out);
}

// Sum over the three samples of image k's pixels of table[sample] times the
// sample's luminance coefficient, from 0 in red, green, blue order; doubled
// for a last image with a table of its own.
HWY_INLINE VF RawWeight(const RawWeightsArgs &p, int k, size_t px) {
    const DF df;
    const bool last = k == p.kMax - 1;
    const float *erreur = last ? p.coeffErreurLastImg : p.coeffErreur;
    VI r, g, b;
    LoadPixels(p.in[k] + 3 * px, r, g, b);
    VF fval = hn::Zero(df);
    fval = hn::Add(fval, hn::Mul(hn::GatherIndex(df, erreur, r), hn::Set(df, 0.2f)));
    fval = hn::Add(fval, hn::Mul(hn::GatherIndex(df, erreur, g), hn::Set(df, 0.7f)));
    fval = hn::Add(fval, hn::Mul(hn::GatherIndex(df, erreur, b), hn::Set(df, 0.1f)));
    if (last && p.coeffErreur != p.coeffErreurLastImg) fval = hn::Mul(fval, hn::Set(df, 2.0f));
    return fval;
}

// Raw weights of the N pixels from px; false, having stored nothing, when a
// lane fails the weight check.
template <int K>
HWY_INLINE bool RawVector(const RawWeightsArgs &p, size_t px) {
    const DF df;
    const VF one = hn::Set(df, 1.0f);
    const VF raw0 = RawWeight(p, 0, px);
    const VF raw1 = K >= 2 ? RawWeight(p, 1, px) : hn::Zero(df);
    const VF raw2 = K >= 3 ? RawWeight(p, 2, px) : hn::Zero(df);
    // The sum afresh, from 0, in image order.
    VF sum = hn::Add(hn::Zero(df), raw0);
    if (K >= 2) sum = hn::Add(sum, raw1);
    if (K >= 3) sum = hn::Add(sum, raw2);
    VF w0 = hn::Div(raw0, sum);
    VF w1 = hn::Div(raw1, sum);
    const VF w2 = hn::Div(raw2, sum);
    // Not-a-number fails the check, as it fails the assertion.
    auto ok = hn::Le(w0, one);
    if (K >= 2) ok = hn::And(ok, hn::Le(w1, one));
    if (K >= 3) ok = hn::And(ok, hn::Le(w2, one));
    if (!hn::AllTrue(df, ok)) return false;
    if (K == 2 && p.highlight) {
        const VI luminance0 = Luminance(p.in[0] + 3 * px);
        const auto bright = hn::RebindMask(df, hn::Gt(luminance0, hn::Set(DI(), 240)));
        const VF factor =
            hn::Div(hn::ConvertTo(df, hn::Sub(luminance0, hn::Set(DI(), 240))), hn::Set(df, 15.0f));
        VF s1 = hn::Add(w1, factor);
        const VF s0 = hn::Div(w0, hn::Add(w0, s1));
        s1 = hn::Div(s1, hn::Add(s0, s1));
        w0 = hn::IfThenElse(bright, s0, w0);
        w1 = hn::IfThenElse(bright, s1, w1);
    }
    StoreWeightBytes(w0, p.out[0] + px);
    if (K >= 2) StoreWeightBytes(w1, p.out[1] + px);
    if (K >= 3) StoreWeightBytes(w2, p.out[2] + px);
    return true;
}

template <int K>
void RawWeightsK(const RawWeightsArgs &p) {
    const size_t N = hn::Lanes(DF());
    const size_t count = (size_t)p.iMax * p.jMax;
    size_t px = 0;
    for (; px + N <= count; px += N)
        if (!RawVector<K>(p, px)) rawWeightPixels(p, px, N);  // aborts there
    rawWeightPixels(p, px, count - px);
}

void RawWeights(const RawWeightsArgs &p) {
    if (p.kMax == 1)
        RawWeightsK<1>(p);
    else if (p.kMax == 2)
        RawWeightsK<2>(p);
    else
        RawWeightsK<3>(p);
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumora {
namespace simd {

HWY_EXPORT(RawWeights);

void rawWeights(const RawWeightsArgs &p) {
    // The highlight shift pairs exactly two images.
    if (p.kMax < 1 || p.kMax > 3 || (p.highlight && p.kMax != 2)) {
        rawWeightPixels(p, 0, (size_t)p.iMax * p.jMax);
        return;
    }
    HWY_DYNAMIC_DISPATCH(RawWeights)(p);
}

}  // namespace simd
}  // namespace lumora
#endif  // HWY_ONCE
