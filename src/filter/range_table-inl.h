// The range-table reads of the SIMD level pass, in one place: the index
// conversion and the lookup, which gives the table's very floats. Included
// once per instruction set by level_pass_hwy.cpp (Highway's per-target
// include guard).

#if defined(LUMORA_FILTER_RANGE_TABLE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMORA_FILTER_RANGE_TABLE_INL_H_
#undef LUMORA_FILTER_RANGE_TABLE_INL_H_
#else
#define LUMORA_FILTER_RANGE_TABLE_INL_H_
#endif

#include <cstdint>

#include <hwy/highway.h>

#include "filter/level_pass_simd.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using DI = hn::RebindToSigned<DF>;

// (int) v for lanes known to lie within int32's range, as a range-table
// index always does. On x86, Highway's ConvertTo also mends lanes that
// overflow: four more instructions between each entry's distance and its
// table read, which x86's truncating conversion alone does not need.
HWY_INLINE hn::Vec<DI> TruncateInRange(hn::Vec<DF> v) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    return hn::Vec<DI>{_mm512_cvttps_epi32(v.raw)};
#elif HWY_TARGET == HWY_AVX2
    return hn::Vec<DI>{_mm256_cvttps_epi32(v.raw)};
#elif HWY_TARGET == HWY_SSE4 || HWY_TARGET == HWY_SSSE3
    return hn::Vec<DI>{_mm_cvttps_epi32(v.raw)};
#else
    return hn::ConvertTo(DI(), v);
#endif
}

// Whether this instruction set reads the table (and packed lanes' bytes) a
// second way, by scalar loads (LaneReads::Loads); elsewhere both reads are
// the gather, and the kernels are compiled once, for the gather.
constexpr bool OffersLoads() { return HWY_TARGET == HWY_AVX2; }
constexpr LaneReads SecondReads() {
    return OffersLoads() ? LaneReads::Loads : LaneReads::Gather;
}

#if HWY_TARGET == HWY_AVX2
// The lane values of f(index) for the eight indices of idx (none negative),
// loaded one by one: the indices leave the register in pairs (lane 2k low,
// 2k + 1 high); the caller puts the values together.
template <typename T, class F>
HWY_INLINE void LoadEachLane(hn::Vec<DI> idx, F &&f, T out[8]) {
    const __m128i lo = _mm256_castsi256_si128(idx.raw);
    const __m128i hi = _mm256_extracti128_si256(idx.raw, 1);
    const uint64_t q[4] = {(uint64_t)_mm_cvtsi128_si64(lo), (uint64_t)_mm_extract_epi64(lo, 1),
                           (uint64_t)_mm_cvtsi128_si64(hi), (uint64_t)_mm_extract_epi64(hi, 1)};
    for (int k = 0; k < 4; k++) {
        out[2 * k] = f((uint32_t)q[k]);
        out[2 * k + 1] = f((uint32_t)(q[k] >> 32));
    }
}
#endif

// lut[idx] in every lane, for the indices of both kinds of level: a colour
// level's are clamped below EXP_LUT_ENTRIES, a one-sample level's are a
// brightness difference, at most 256 for 8-bit samples. Both reads give the
// table's very floats; which is faster depends on the core, so the level
// pass measures them on first use (level_pass_hwy.cpp).
//
// Gathers, and what measured worse, one thread, the 12 MP level pass
// benchmark, ns per pixel-entry:
// - AVX-512, Intel Xeon (Sapphire Rapids or later): the table's first 257
//   entries held in 16 registers and read by two-table permutes where every
//   lane's index is covered, before the gather, gave colour level 2 1.80
//   against 1.31, colour map 3.11 against 2.63, level 1 alike (vectors
//   one at a time);
// - AVX2, the same Xeon: eight scalar loads, their indices stored to memory
//   and read back, gave colour level 1 1.52-1.55 against 0.95-1.13 and
//   one-sample levels 1.09-1.63 against 0.57-0.74;
// - AVX2, AMD EPYC (Zen 3): the first 64 entries read by vpermps and blends
//   where every lane's index is below 64, 13-28 % slower on the unsteered
//   levels and up to 7 % on the map levels; the same without the branch,
//   the larger lanes by a masked gather, 17-61 % slower.
//
// Loads (AVX2): the indices leave the register as four 64-bit halves
// (vmovq, vpextrq), each lane's entry is one scalar load, and the loads are
// put together with vinsertps. On the AMD EPYC (Zen 3), where an 8-lane
// gather alone costs some 13 cycles: colour levels 1 and 2 about 12 % less
// (medians of six interleaved runs, 1.38 against 1.56 and 2.43 against
// 2.76), one-sample levels 10-20 % less, the colour map alike (its packed
// lanes' records dominate). With the indices stored to memory and read back
// instead of moved out of the register, the loads had measured alike there.
// Not yet measured on an Intel core.
template <LaneReads R>
HWY_INLINE hn::Vec<DF> RangeWeight(const float *HWY_RESTRICT lut, hn::Vec<DI> idx) {
#if HWY_TARGET == HWY_AVX2
    if constexpr (R == LaneReads::Loads) {
        float v[8];
        LoadEachLane(idx, [lut](uint32_t i) { return lut[i]; }, v);
        const __m128 low = _mm_setr_ps(v[0], v[1], v[2], v[3]);
        const __m128 high = _mm_setr_ps(v[4], v[5], v[6], v[7]);
        return hn::Vec<DF>{_mm256_set_m128(high, low)};
    }
#endif
    return hn::GatherIndex(DF(), lut, idx);
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#endif  // LUMORA_FILTER_RANGE_TABLE_INL_H_
