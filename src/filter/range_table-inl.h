// The range-table reads of the SIMD level pass: each instruction set's
// lookup strategy in one place. Whatever the strategy, a read gives the
// table's very floats. Included once per instruction set by
// level_pass_hwy.cpp (Highway's per-target include guard).

#if defined(LUMORA_FILTER_RANGE_TABLE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMORA_FILTER_RANGE_TABLE_INL_H_
#undef LUMORA_FILTER_RANGE_TABLE_INL_H_
#else
#define LUMORA_FILTER_RANGE_TABLE_INL_H_
#endif

#include <cstdint>

#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using DI = hn::RebindToSigned<DF>;

// AVX-512: the table's first 257 entries held in registers, read by
// two-table permutes where every lane's index is covered. Elsewhere every
// read is a gather. On AVX2 (an AMD EPYC of two shared vCPUs, the 12 MP
// level pass benchmark, one thread, medians of interleaved runs) eight
// scalar loads assembled into the vector measured alike (within the
// noise); the first 64 entries read by vpermps and blends where every
// lane's index is below 64, 13-28 % slower on the unsteered levels and up
// to 7 % on the map levels; the same without the branch, the larger lanes
// by a masked gather, 17-61 % slower.
#undef LUMORA_RANGE_TABLE_IN_REGISTERS
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
#define LUMORA_RANGE_TABLE_IN_REGISTERS 1
#else
#define LUMORA_RANGE_TABLE_IN_REGISTERS 0
#endif

struct RangeTable {
    const float *lut;
#if LUMORA_RANGE_TABLE_IN_REGISTERS
    // Entries 16q .. 16q + 15 in tq; entry 256 on its own.
    hn::Vec<DF> t0, t1, t2, t3, t4, t5, t6, t7, t8, t9, t10, t11, t12, t13, t14, t15;
    hn::Vec<DF> at256;
#endif
};

// What the lookups of a level keep at hand.
HWY_INLINE RangeTable LoadRangeTable(const float *lut) {
    RangeTable t;
    t.lut = lut;
#if LUMORA_RANGE_TABLE_IN_REGISTERS
    const DF df;
    // Written out, not as a loop over an array: kept in registers.
    t.t0 = hn::LoadU(df, lut + 0);
    t.t1 = hn::LoadU(df, lut + 16);
    t.t2 = hn::LoadU(df, lut + 32);
    t.t3 = hn::LoadU(df, lut + 48);
    t.t4 = hn::LoadU(df, lut + 64);
    t.t5 = hn::LoadU(df, lut + 80);
    t.t6 = hn::LoadU(df, lut + 96);
    t.t7 = hn::LoadU(df, lut + 112);
    t.t8 = hn::LoadU(df, lut + 128);
    t.t9 = hn::LoadU(df, lut + 144);
    t.t10 = hn::LoadU(df, lut + 160);
    t.t11 = hn::LoadU(df, lut + 176);
    t.t12 = hn::LoadU(df, lut + 192);
    t.t13 = hn::LoadU(df, lut + 208);
    t.t14 = hn::LoadU(df, lut + 224);
    t.t15 = hn::LoadU(df, lut + 240);
    t.at256 = hn::Set(df, lut[256]);
#endif
    return t;
}

// Whether every lane's index is below `limit` (compared unsigned).
HWY_INLINE bool AllBelow(hn::Vec<DI> idx, uint32_t limit) {
    const hn::RebindToUnsigned<DF> du;
    return hn::AllTrue(du, hn::Lt(hn::BitCast(du, idx), hn::Set(du, limit)));
}

#if LUMORA_RANGE_TABLE_IN_REGISTERS
// Lanes of the 32 entries a, b (a first) at the low five bits of idx.
HWY_INLINE hn::Vec<DF> Permute2(hn::Vec<DF> a, hn::Vec<DI> idx, hn::Vec<DF> b) {
    return hn::Vec<DF>{_mm512_permutex2var_ps(a.raw, idx.raw, b.raw)};
}

HWY_INLINE hn::Mask<DF> Bit(hn::Vec<DI> idx, int32_t bit) {
    return hn::RebindMask(DF(), hn::TestBit(idx, hn::Set(DI(), bit)));
}

// Every index below 128 (TO_256 false) or at most 256.
template <bool TO_256>
HWY_INLINE hn::Vec<DF> LookupInRegisters(const RangeTable &t, hn::Vec<DI> idx) {
    const auto b5 = Bit(idx, 32);
    const auto b6 = Bit(idx, 64);
    const auto r01 = hn::IfThenElse(b5, Permute2(t.t2, idx, t.t3), Permute2(t.t0, idx, t.t1));
    const auto r23 = hn::IfThenElse(b5, Permute2(t.t6, idx, t.t7), Permute2(t.t4, idx, t.t5));
    const auto r03 = hn::IfThenElse(b6, r23, r01);
    if constexpr (!TO_256) return r03;
    const auto r45 = hn::IfThenElse(b5, Permute2(t.t10, idx, t.t11), Permute2(t.t8, idx, t.t9));
    const auto r67 = hn::IfThenElse(b5, Permute2(t.t14, idx, t.t15), Permute2(t.t12, idx, t.t13));
    const auto r47 = hn::IfThenElse(b6, r67, r45);
    const auto r07 = hn::IfThenElse(Bit(idx, 128), r47, r03);
    return hn::IfThenElse(hn::RebindMask(DF(), hn::Eq(idx, hn::Set(DI(), 256))), t.at256, r07);
}
#endif

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

// lut[idx] in every lane, for the indices of both kinds of level: a colour
// level's are clamped below EXP_LUT_ENTRIES, a one-sample level's are a
// brightness difference, at most 256 for 8-bit samples. Far-apart pixels of
// a real photo differ a lot in colour: on the wide levels a third to two
// thirds of the vectors hold an index of 128 or more, and a quarter of those
// stay within 256 (a 12 MP fusion measured 3 to 7 % faster on AVX-512 with
// the second tree before the gather).
HWY_INLINE hn::Vec<DF> RangeWeight(const RangeTable &t, hn::Vec<DI> idx) {
#if LUMORA_RANGE_TABLE_IN_REGISTERS
    if (AllBelow(idx, 128)) return LookupInRegisters<false>(t, idx);
    if (AllBelow(idx, 257)) return LookupInRegisters<true>(t, idx);
#endif
    return hn::GatherIndex(DF(), t.lut, idx);
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#endif  // LUMORA_FILTER_RANGE_TABLE_INL_H_
