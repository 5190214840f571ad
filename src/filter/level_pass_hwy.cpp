// SIMD 8-bit level pass.
//
// The lanes of a vector are neighbouring pixels of one row, never the
// entries of one pixel's kernel: every lane runs the per-pixel arithmetic of
// fusion2f and convolveFastSimple8 operation for operation (separate
// multiplies and adds, sums in entry order, IEEE division, truncating
// conversions), so each pixel gets the very bytes of the per-pixel code.
// The kernel choice is the per-pixel code's chooseKernel, and the pixels the
// bright map copies and those that do not fill a vector, at the end of a
// row, go through the per-pixel filterPixel8 itself.
//
// The level pass (level_pass.cpp) runs the thread team: this file plans the
// level before the team starts, loads each band's planes in steps the team
// shares, and fills the rows it is handed.
//
// So that an entry of neighbouring pixels lies in neighbouring memory, the
// bordered working copy is split into planes: one plane of bytes per sample
// (a one-sample copy is its own plane) and, for filtered colour levels,
// float planes of every pixel's L, A and B from the CIELab table. Colour
// planes are a ring of rows, enough for the rows one band of output rows
// reads: copy row r lives in ring row r mod (ring rows), and the next band
// converts only the rows it adds, into the ring rows of rows no longer read,
// so nothing is moved. Whole-image planes would cost a quarter of a gigabyte
// on a 12 MP picture. Rows are filtered one vector at a time:
// first the weights of all its entries (into a buffer that stays in the
// first-level cache) and their sum, then the convolution sums, all in
// registers; the range table's first entries are read from registers where
// every lane's index is small, and the planes of the wide kernels' far-apart
// entries are prefetched a few vectors ahead.
//
// Compiled once per instruction set (Highway's foreach_target); the best one
// the processor supports is chosen at run time.

#ifndef LUMORA_SIMD_LEVEL_PASS_SHARED
#define LUMORA_SIMD_LEVEL_PASS_SHARED

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/switches.h"
#include "diag/diag.h"
#include "filter/filter.h"
#include "tables/tables.h"

namespace lumora {
namespace simd {

// One sparse kernel addressed in the planes. For the whole level: entry e
// of the pixel whose window origin is copy pixel index p lies at copy pixel
// index p + offset[e]. For one row (rowKernel): entry e of the pixel in
// column i lies at plane index offset[e] + i.
struct KernelPlan {
    const ptrdiff_t *offset;
    const float *factor;
    int n;
    int centre;
};

// What every row of one level's SIMD pass reads.
struct Pass {
    const LevelPassArgs *args;
    const unsigned char *sample[3];  // one plane of bytes per sample
    const float *lab[3];             // L, A, B planes (filtered colour levels)
    // Colour levels steered by the map: every pixel's L, A, B and its three
    // bytes (then a zero) in 16 bytes, one cache line for a packed lane's
    // entry.
    const float *record;
    size_t width;                    // pixels per row of the bordered copy
    // Rows of the planes' ring (the planes then have one row more, a copy
    // of ring row 0, for reads that run on past the last ring row's end);
    // 0: the planes hold the whole copy.
    int ringRows;
    KernelPlan normal;
    KernelPlan fine;
    bool useMap;
    int block;  // pixels filtered together, a multiple of the lane count
};

// One thread's working memory for a block of pixels.
struct Scratch {
    float *weights;          // entries x lanes: the bilateral weights of one vector
    int32_t *resultNormal;   // spp x block truncated sums, normal kernel
    int32_t *resultFine;     // likewise, fine kernel
    KernelChoice *choice;    // block kernel choices
    unsigned char *need;     // 2 x block/lanes: vectors that need the normal / fine kernel
    int32_t *packed;         // row columns of the fine pixels computed packed
    ptrdiff_t *rowOffset;    // the row's entry offsets, normal kernel then fine
    KernelEntry *kernel;     // the thread's kernel buffer for the per-pixel code
};
constexpr int SCRATCH_PIECES = 7;  // the pointers of Scratch but the kernel

// Row r of the bordered colour copy into plane row `slot`. The two zero
// rows of slack after the copy are converted too: the per-pixel code can
// read them on small images, and it reads bytes 0, 0, 0 there, so the planes
// hold 0 and labLUT[0][0][0] (lab[0] null: a gauss-only level, no CIELab
// planes; record null: no records).
inline void convertRow(const LevelPassArgs &a, unsigned char *const *sample, float *const *lab,
                       float *record, size_t width, int r, int slot) {
    const unsigned char *q = a.img->image + (size_t)r * width * 3;
    for (size_t px = (size_t)slot * width; px < (size_t)(slot + 1) * width; px++, q += 3) {
        sample[0][px] = q[0];
        sample[1][px] = q[1];
        sample[2][px] = q[2];
        if (lab[0] != nullptr) {
            const LABData &v = labLUT[q[0]][q[1]][q[2]];
            lab[0][px] = v.l;
            lab[1][px] = v.a;
            lab[2][px] = v.b;
            if (record != nullptr) {
                float *rec = record + 4 * px;
                rec[0] = v.l;
                rec[1] = v.a;
                rec[2] = v.b;
                const unsigned char bytes[4] = {q[0], q[1], q[2], 0};
                std::memcpy(rec + 3, bytes, 4);
            }
        }
    }
}

// Kernel k of the level addressed for row j: where each entry of the row's
// pixels lies in the planes, from the window origin of its column 0. A
// vector's read may run on past the end of its plane row into the next; the
// ring's extra row keeps that true across the ring's end.
inline KernelPlan rowKernel(const KernelPlan &k, size_t width, int ringRows, int j,
                            ptrdiff_t *offset) {
    const ptrdiff_t w = (ptrdiff_t)width;
    for (int e = 0; e < k.n; e++) {
        const ptrdiff_t q = (ptrdiff_t)j * w + k.offset[e];
        if (ringRows == 0) {
            offset[e] = q;
            continue;
        }
        ptrdiff_t row = q / w, column = q % w;
        if (column < 0) row--, column += w;
        offset[e] = (row % ringRows) * w + column;
    }
    return {offset, k.factor, k.n, k.centre};
}

}  // namespace simd
}  // namespace lumora

#endif  // LUMORA_SIMD_LEVEL_PASS_SHARED

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "filter/level_pass_hwy.cpp"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using DI = hn::RebindToSigned<DF>;

size_t FloatLanes() { return hn::Lanes(DF()); }

const char *TargetName() { return hwy::TargetName(HWY_TARGET); }

// A vector of bytes from a sample plane, as floats (exactly).
HWY_INLINE hn::Vec<DF> LoadSamples(const unsigned char *p) {
    const hn::Rebind<uint8_t, DF> d8;
    return hn::ConvertTo(DF(), hn::PromoteTo(DI(), hn::LoadU(d8, p)));
}

// Byte q (0..2) of an int32 gathered from a byte plane, as float (exactly).
template <int Q>
HWY_INLINE hn::Vec<DF> ByteOf(hn::Vec<DI> word) {
    const DI di;
    return hn::ConvertTo(DF(), hn::And(hn::ShiftRight<8 * Q>(word), hn::Set(di, 0xFF)));
}

// Four bytes from each lane's pixel at entry offset o of a byte plane, lane
// x standing for the pixel idx[x] places on (the low byte is the lane's
// sample; the plane's slack rows keep the extra bytes in bounds).
HWY_INLINE hn::Vec<DI> GatherBytes(const unsigned char *plane, ptrdiff_t o, hn::Vec<DI> idx) {
    return hn::GatherOffset(DI(), reinterpret_cast<const int32_t *>(plane + o), idx);
}

// ---------------------------------------------------------------------------
// Whole vectors, one at a time: for each vector of neighbouring pixels the
// weights of all its entries (into a buffer of one vector per entry, which
// stays in the first-level cache) with their sum in a register, then the
// normalised weights and the convolution sums, also in registers. Every lane
// still runs its own pixel's entries in kernel order.

// The range table's first entries held in registers, read by two-table
// permutes (AVX-512 only; elsewhere every read is a gather). A lookup gives
// the table's very floats: only where every lane's index is covered.
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

// The table's first 257 entries (the lookups of every filtered level).
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

#if LUMORA_RANGE_TABLE_IN_REGISTERS
// Lanes of the 32 entries a, b (a first) at the low five bits of idx.
HWY_INLINE hn::Vec<DF> Permute2(hn::Vec<DF> a, hn::Vec<DI> idx, hn::Vec<DF> b) {
    return hn::Vec<DF>{_mm512_permutex2var_ps(a.raw, idx.raw, b.raw)};
}

HWY_INLINE hn::Mask<DF> Bit(hn::Vec<DI> idx, int32_t bit) {
    return hn::RebindMask(DF(), hn::TestBit(idx, hn::Set(DI(), bit)));
}

// Every index below 128.
HWY_INLINE hn::Vec<DF> Lookup128(const RangeTable &t, hn::Vec<DI> idx) {
    const auto r0 = Permute2(t.t0, idx, t.t1);
    const auto r1 = Permute2(t.t2, idx, t.t3);
    const auto r2 = Permute2(t.t4, idx, t.t5);
    const auto r3 = Permute2(t.t6, idx, t.t7);
    const auto b5 = Bit(idx, 32);
    const auto r01 = hn::IfThenElse(b5, r1, r0);
    const auto r23 = hn::IfThenElse(b5, r3, r2);
    return hn::IfThenElse(Bit(idx, 64), r23, r01);
}

// Every index at most 256.
HWY_INLINE hn::Vec<DF> Lookup256(const RangeTable &t, hn::Vec<DI> idx) {
    const auto r0 = Permute2(t.t0, idx, t.t1);
    const auto r1 = Permute2(t.t2, idx, t.t3);
    const auto r2 = Permute2(t.t4, idx, t.t5);
    const auto r3 = Permute2(t.t6, idx, t.t7);
    const auto r4 = Permute2(t.t8, idx, t.t9);
    const auto r5 = Permute2(t.t10, idx, t.t11);
    const auto r6 = Permute2(t.t12, idx, t.t13);
    const auto r7 = Permute2(t.t14, idx, t.t15);
    const auto b5 = Bit(idx, 32);
    const auto r01 = hn::IfThenElse(b5, r1, r0);
    const auto r23 = hn::IfThenElse(b5, r3, r2);
    const auto r45 = hn::IfThenElse(b5, r5, r4);
    const auto r67 = hn::IfThenElse(b5, r7, r6);
    const auto b6 = Bit(idx, 64);
    const auto r03 = hn::IfThenElse(b6, r23, r01);
    const auto r47 = hn::IfThenElse(b6, r67, r45);
    const auto r07 = hn::IfThenElse(Bit(idx, 128), r47, r03);
    return hn::IfThenElse(hn::RebindMask(DF(), hn::Eq(idx, hn::Set(DI(), 256))), t.at256, r07);
}

// Whether every lane's index is below `limit` (compared unsigned).
HWY_INLINE bool AllBelow(hn::Vec<DI> idx, uint32_t limit) {
    const hn::RebindToUnsigned<DF> du;
    return hn::AllTrue(du, hn::Lt(hn::BitCast(du, idx), hn::Set(du, limit)));
}
#endif

// The range weights of a colour level: indices are clamped below 20000.
// Far-apart pixels of a real photo differ a lot in colour: on the wide
// levels a third to two thirds of the vectors hold an index of 128 or more,
// and a quarter of those stay within 256 (a 12 MP fusion measured 3 to 7 %
// faster with the second tree before the gather).
HWY_INLINE hn::Vec<DF> ColourRange(const RangeTable &t, hn::Vec<DI> idx) {
#if LUMORA_RANGE_TABLE_IN_REGISTERS
    if (AllBelow(idx, 128)) return Lookup128(t, idx);
    if (AllBelow(idx, 257)) return Lookup256(t, idx);
#endif
    return hn::GatherIndex(DF(), t.lut, idx);
}

// Of a one-sample level: the index is a brightness difference, at most 256
// for 8-bit samples and the kernels' weights below 1.
HWY_INLINE hn::Vec<DF> GreyRange(const RangeTable &t, hn::Vec<DI> idx) {
#if LUMORA_RANGE_TABLE_IN_REGISTERS
    if (AllBelow(idx, 128)) return Lookup128(t, idx);
    if (AllBelow(idx, 257)) return Lookup256(t, idx);
#endif
    return hn::GatherIndex(DF(), t.lut, idx);
}

// The lookups alone, over count indices (a multiple of the lane count).
void RangeLookup(const float *lut, bool oneSample, const int32_t *idx, size_t count, float *out) {
    const DF df;
    const DI di;
    const RangeTable t = LoadRangeTable(lut);
    for (size_t x = 0; x < count; x += hn::Lanes(df)) {
        const auto i = hn::LoadU(di, idx + x);
        hn::StoreU(oneSample ? GreyRange(t, i) : ColourRange(t, i), df, out + x);
    }
}

// Reads of the entry planes two vectors ahead of the current one, and of
// the byte planes one cache line ahead every 64 pixels: the wide kernels'
// entries are rows apart, beyond the hardware prefetcher's reach. Into the
// second-level cache only: two vectors of a wide kernel's entries are more
// lines than the first-level cache holds (fetched into the first level, the
// colour map level measured a third slower, 4 vectors ahead no faster).
template <typename T>
HWY_INLINE void PrefetchAhead(const T *p) {
    __builtin_prefetch(p, 0, 2);
}
// Packed lanes read one cache line each per entry, far apart and beyond the
// hardware prefetcher's guess: their lines are fetched this many entries
// ahead, lane by lane (2, 4, 8 and 16 measured alike; without, the colour
// map level costs a third more).
constexpr int PACKED_AHEAD = 8;

// Where each lane's read starts, for PrefetchLanes.
struct LaneStarts {
    int32_t at[HWY_MAX_BYTES / sizeof(int32_t)];
};

template <typename T>
HWY_INLINE void PrefetchLanes(const T *base, const LaneStarts &lanes, size_t n) {
    for (size_t x = 0; x < n; x++) PrefetchAhead(base + lanes.at[x]);
}

// Where the lanes of one vector read: the planes from the block's first
// pixel, lane x at the vector's first pixel plus x; packed, each lane at its
// own offset into the records (passed beside, as `lanes` and `quads`).
template <int SPP, bool PACKED>
struct LaneSource {
    const unsigned char *S0, *S1, *S2;  // sample planes
    const float *R;                     // records (packed colour lanes)
    const float *L, *A, *Bp;            // CIELab planes (filtered colour levels)
    size_t x = 0;                       // the vector's first pixel in the block
    bool lineStart = false;             // prefetch the byte planes' next cache line
};

template <int SPP, bool PACKED>
HWY_INLINE LaneSource<SPP, PACKED> BlockSource(const Pass &p, size_t first, bool gauss) {
    const bool lab = !gauss && SPP == 3;
    LaneSource<SPP, PACKED> src;
    src.S0 = p.sample[0] + first;
    src.S1 = p.sample[SPP == 3 ? 1 : 0] + first;
    src.S2 = p.sample[SPP == 3 ? 2 : 0] + first;
    src.R = PACKED && SPP == 3 ? p.record + 4 * first : nullptr;
    src.L = lab ? p.lab[0] + first : nullptr;
    src.A = lab ? p.lab[1] + first : nullptr;
    src.Bp = lab ? p.lab[2] + first : nullptr;
    return src;
}

// Component q (L, A, B) of the lanes' pixels at entry offset o.
template <int SPP, bool PACKED>
HWY_INLINE hn::Vec<DF> Floats(const LaneSource<SPP, PACKED> &src, const float *plane, int q,
                              ptrdiff_t o, hn::Vec<DI> quads) {
    if constexpr (PACKED)
        return hn::GatherIndex(DF(), src.R + 4 * o + q, quads);
    else
        return hn::LoadU(DF(), plane + o + src.x);
}

// The lanes' samples at entry offset o.
template <int SPP, bool PACKED>
HWY_INLINE void Samples(const LaneSource<SPP, PACKED> &src, ptrdiff_t o, hn::Vec<DI> lanes,
                        hn::Vec<DI> quads, hn::Vec<DF> &s0, hn::Vec<DF> &s1, hn::Vec<DF> &s2) {
    if constexpr (PACKED) {
        if constexpr (SPP == 3) {
            const auto word =
                hn::GatherIndex(DI(), reinterpret_cast<const int32_t *>(src.R + 4 * o + 3), quads);
            s0 = ByteOf<0>(word);
            s1 = ByteOf<1>(word);
            s2 = ByteOf<2>(word);
        } else {
            s0 = ByteOf<0>(GatherBytes(src.S0, o, lanes));
        }
    } else {
        const size_t x = src.x;
        if (src.lineStart) {
            PrefetchAhead(src.S0 + o + x + 64);
            if constexpr (SPP == 3) {
                PrefetchAhead(src.S1 + o + x + 64);
                PrefetchAhead(src.S2 + o + x + 64);
            }
        }
        s0 = LoadSamples(src.S0 + o + x);
        if constexpr (SPP == 3) {
            s1 = LoadSamples(src.S1 + o + x);
            s2 = LoadSamples(src.S2 + o + x);
        }
    }
}

// The bilateral weights of a colour vector's entries into w (one vector per
// entry), returning their sum.
template <bool PACKED>
HWY_INLINE hn::Vec<DF> ColourWeights(const LaneSource<3, PACKED> &src, const KernelPlan &k,
                                     const RangeTable &table, hn::Vec<DI> quads,
                                     float *HWY_RESTRICT w) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const auto limit = hn::Set(df, (float)EXP_LUT_ENTRIES);
    const auto lastEntry = hn::Set(df, (float)(EXP_LUT_ENTRIES - 1));
    const ptrdiff_t c = k.offset[k.centre];
    const auto cL = Floats(src, src.L, 0, c, quads);
    const auto cA = Floats(src, src.A, 1, c, quads);
    const auto cB = Floats(src, src.Bp, 2, c, quads);
    LaneStarts starts;
    if constexpr (PACKED) hn::StoreU(quads, di, starts.at);
    auto sum = hn::Zero(df);
    for (int e = 0; e < k.n; e++) {
        const ptrdiff_t o = k.offset[e];
        if constexpr (!PACKED) {
            PrefetchAhead(src.L + o + src.x + 2 * N);
            PrefetchAhead(src.A + o + src.x + 2 * N);
            PrefetchAhead(src.Bp + o + src.x + 2 * N);
        } else if (e + PACKED_AHEAD < k.n) {
            PrefetchLanes(src.R + 4 * k.offset[e + PACKED_AHEAD], starts, N);
        }
        const auto dL = hn::Sub(Floats(src, src.L, 0, o, quads), cL);
        const auto dA = hn::Sub(Floats(src, src.A, 1, o, quads), cA);
        const auto dB = hn::Sub(Floats(src, src.Bp, 2, o, quads), cB);
        // No fused multiply-add: each square is rounded, L and A first.
        auto dist = hn::Add(hn::Add(hn::Mul(dL, dL), hn::Mul(dA, dA)), hn::Mul(dB, dB));
        // Past the table: its last entry, EXP_LUT_ENTRIES - 1.
        dist = hn::IfThenElse(hn::Ge(dist, limit), lastEntry, dist);
        const auto weight =
            hn::Mul(hn::Set(df, k.factor[e]), ColourRange(table, hn::ConvertTo(di, dist)));
        hn::StoreU(weight, df, w + e * N);
        sum = hn::Add(sum, weight);
    }
    return sum;
}

// The same for a one-sample vector. Brightness is the spatial weight plus the
// sample (the per-pixel code starts its sum from the copied weight, and
// dividing by one sample changes nothing).
template <bool PACKED>
HWY_INLINE hn::Vec<DF> GreyWeights(const LaneSource<1, PACKED> &src, const KernelPlan &k,
                                   const RangeTable &table, hn::Vec<DI> lanes, hn::Vec<DI> quads,
                                   float *HWY_RESTRICT w) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    hn::Vec<DF> s0, unused1, unused2;
    Samples(src, k.offset[k.centre], lanes, quads, s0, unused1, unused2);
    const auto centreBright = hn::Add(hn::Set(df, k.factor[k.centre]), s0);
    LaneStarts starts;
    if constexpr (PACKED) hn::StoreU(lanes, di, starts.at);
    auto sum = hn::Zero(df);
    for (int e = 0; e < k.n; e++) {
        if (PACKED && e + PACKED_AHEAD < k.n)
            PrefetchLanes(src.S0 + k.offset[e + PACKED_AHEAD], starts, N);
        Samples(src, k.offset[e], lanes, quads, s0, unused1, unused2);
        const auto spatial = hn::Set(df, k.factor[e]);
        const auto bright = hn::Add(spatial, s0);
        const auto index = hn::ConvertTo(di, hn::Abs(hn::Sub(bright, centreBright)));
        const auto weight = hn::Mul(spatial, GreyRange(table, index));
        hn::StoreU(weight, df, w + e * N);
        sum = hn::Add(sum, weight);
    }
    return sum;
}

// The convolution sums of one vector, entry by entry: with the kernel's own
// weights (gauss), or with the weights in w divided by their sum wherever
// its truncation is non-zero (the per-pixel test |(int)sum| > 1e-5, i.e.
// |sum| >= 1).
template <int SPP, bool PACKED>
HWY_INLINE void ConvolutionSums(const LaneSource<SPP, PACKED> &src, const KernelPlan &k,
                                hn::Vec<DI> lanes, hn::Vec<DI> quads, bool gauss,
                                const float *HWY_RESTRICT w, hn::Vec<DF> sum, hn::Vec<DF> &acc0,
                                hn::Vec<DF> &acc1, hn::Vec<DF> &acc2) {
    const DF df;
    const size_t N = hn::Lanes(df);
    hn::Vec<DF> s0, s1, s2;
    const auto accumulate = [&](hn::Vec<DF> weight) {
        acc0 = hn::Add(acc0, hn::Mul(s0, weight));
        if constexpr (SPP == 3) {
            acc1 = hn::Add(acc1, hn::Mul(s1, weight));
            acc2 = hn::Add(acc2, hn::Mul(s2, weight));
        }
    };
    if (gauss) {
        for (int e = 0; e < k.n; e++) {
            Samples(src, k.offset[e], lanes, quads, s0, s1, s2);
            accumulate(hn::Set(df, k.factor[e]));
        }
        return;
    }
    const auto divide = hn::Ge(hn::Abs(sum), hn::Set(df, 1.0f));
    // The weights pass brought a packed vector's lines into the cache:
    // fetching them again ahead here measured slower.
    for (int e = 0; e < k.n; e++) {
        Samples(src, k.offset[e], lanes, quads, s0, s1, s2);
        const auto weight = hn::LoadU(df, w + e * N);
        accumulate(hn::IfThenElse(divide, hn::Div(weight, sum), weight));
    }
}

// The nv vectors of a block from column `base` of a row, with kernel k
// addressed for that row, that `need` marks (null: all): their truncated
// convolution sums into
// result[sample * block + lane]. gauss: the kernel's own weights.
//
// PACKED: lane x stands for the pixel idx[x] places after `base` instead of
// the x-th, and its reads become gathers (of a colour level's records, so
// that a lane's entry costs one cache line). This packs the few fine-kernel
// pixels of sparse vectors into full vectors.
template <int SPP, bool PACKED>
HWY_INLINE void FilterVectors(const Pass &p, const KernelPlan &k, size_t base, size_t nv,
                              const unsigned char *need, const int32_t *idx, bool gauss,
                              const Scratch &s, int32_t *HWY_RESTRICT result) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const size_t B = (size_t)p.block;
    LaneSource<SPP, PACKED> src = BlockSource<SPP, PACKED>(p, base, gauss);
    float *HWY_RESTRICT w = s.weights;  // entry e of the vector at w + e * N
    const RangeTable table = LoadRangeTable(p.args->expLut);
    for (size_t v = 0, x = 0; v < nv; v++, x += N) {
        if (need != nullptr && !need[v]) continue;
        src.x = x;
        src.lineStart = !PACKED && x % 64 == 0;
        const auto lanes = PACKED ? hn::LoadU(di, idx + x) : hn::Zero(di);
        const auto quads = hn::ShiftLeft<2>(lanes);  // lanes' first floats in the records
        auto sum = hn::Zero(df);
        if (!gauss) {
            if constexpr (SPP == 3)
                sum = ColourWeights(src, k, table, quads, w);
            else
                sum = GreyWeights(src, k, table, lanes, quads, w);
        }
        auto acc0 = hn::Zero(df), acc1 = hn::Zero(df), acc2 = hn::Zero(df);
        ConvolutionSums(src, k, lanes, quads, gauss, w, sum, acc0, acc1, acc2);
        hn::StoreU(hn::ConvertTo(di, acc0), di, result + x);
        if constexpr (SPP == 3) {
            hn::StoreU(hn::ConvertTo(di, acc1), di, result + B + x);
            hn::StoreU(hn::ConvertTo(di, acc2), di, result + 2 * B + x);
        }
    }
}

// A packed lane costs about two contiguous ones (its reads are gathers;
// measured on AVX-512 with the highlight pass's bright maps): a vector runs
// the fine kernel on all its lanes only when at least three quarters of them
// need it, and otherwise sends them to the packed sweep. Checked again with
// the vector-at-a-time loops: all lanes from three fine pixels on was no
// faster on the 12 MP benchmark's colour map level.
inline bool fineOnAllLanes(size_t fine, size_t lanes) { return 4 * fine >= 3 * lanes; }

// The bright map's choice for the nv vectors of row j from column i0, into
// s.choice, and which vectors need the normal and the fine kernel. The fine
// pixels of sparse vectors join the row's packed list (packed entries so
// far) instead of costing the wide kernel on every lane of their vector.
HWY_INLINE void ChooseBlock(const Pass &p, int j, int i0, size_t nv, const Scratch &s,
                            size_t &packed, bool &anyNormal, bool &anyFine) {
    const LevelPassArgs &a = *p.args;
    const size_t N = hn::Lanes(DF());
    unsigned char *needNormal = s.need;
    unsigned char *needFine = s.need + p.block / N;
    const unsigned char *bright = a.brightImage + (size_t)j * a.iMax + i0;
    anyNormal = anyFine = false;
    for (size_t v = 0; v < nv; v++) {
        size_t fine = 0;
        needNormal[v] = 0;
        for (size_t lane = v * N; lane < (v + 1) * N; lane++) {
            s.choice[lane] = chooseKernel(bright[lane], i0 + (int)lane, j);
            needNormal[v] |= s.choice[lane] == KernelChoice::Normal;
            fine += s.choice[lane] == KernelChoice::Fine;
        }
        needFine[v] = fineOnAllLanes(fine, N);
        if (fine != 0 && !needFine[v])
            for (size_t lane = v * N; lane < (v + 1) * N; lane++)
                if (s.choice[lane] == KernelChoice::Fine) s.packed[packed++] = i0 + (int32_t)lane;
        anyNormal |= needNormal[v] != 0;
        anyFine |= needFine[v] != 0;
    }
}

// The convolution sums of the nv vectors of a block from column base of the
// row whose kernels p carries:
// gauss-only levels with the normal kernel as it is; filtered levels with
// the bilateral weights of the kernels their vectors need (all vectors the
// normal one when the level does not consult the map).
template <int SPP>
HWY_INLINE void FilterBlock(const Pass &p, size_t base, size_t nv, const Scratch &s,
                            bool anyNormal, bool anyFine) {
    const size_t N = hn::Lanes(DF());
    if (p.args->levelGaussOnly) {
        FilterVectors<SPP, false>(p, p.normal, base, nv, nullptr, nullptr, true, s,
                                  s.resultNormal);
        return;
    }
    if (anyNormal)
        FilterVectors<SPP, false>(p, p.normal, base, nv, p.useMap ? s.need : nullptr, nullptr,
                                  false, s, s.resultNormal);
    if (anyFine)
        FilterVectors<SPP, false>(p, p.fine, base, nv, s.need + p.block / N, nullptr, false, s,
                                  s.resultFine);
}

// The block's count output pixels of row j from column i0: copied pixels
// through the per-pixel code, packed ones left to the sweep, the others the
// low 8 bits of their truncated sums, no clamping, as the per-pixel store
// does (a white area whose weights sum above 1 wraps).
template <int SPP>
HWY_INLINE void StoreBlock(const Pass &p, int j, int i0, int count, const Scratch &s) {
    const LevelPassArgs &a = *p.args;
    const size_t N = hn::Lanes(DF());
    const unsigned char *needFine = s.need + p.block / N;
    unsigned char *out = a.imgOutput + (size_t)j * a.rowStride + (size_t)i0 * SPP;
    for (int px = 0; px < count; px++) {
        const KernelChoice choice = p.useMap ? s.choice[px] : KernelChoice::Normal;
        if (choice == KernelChoice::Copy) {
            filterPixel8(a, i0 + px, j, 0, s.kernel);
            continue;
        }
        const bool fine = choice == KernelChoice::Fine;
        if (fine && !needFine[px / N]) continue;  // in the packed sweep
        const int32_t *result = fine ? s.resultFine : s.resultNormal;
        for (int q = 0; q < SPP; q++) out[(size_t)px * SPP + q] = (unsigned char)result[q * p.block + px];
    }
}

// The row's packed fine pixels, a block at a time; the last vector repeats
// its last pixel. Lane x stands for column packed[x] of the row.
template <int SPP>
HWY_INLINE void PackedSweep(const Pass &p, int j, size_t packed, const Scratch &s) {
    const LevelPassArgs &a = *p.args;
    const size_t N = hn::Lanes(DF());
    const size_t B = (size_t)p.block;
    unsigned char *outRow = a.imgOutput + (size_t)j * a.rowStride;
    if (packed != 0)
        for (size_t x = packed; x % N != 0; x++) s.packed[x] = s.packed[packed - 1];
    for (size_t first = 0; first < packed; first += B) {
        const size_t count = std::min(B, packed - first);
        const size_t np = (count + N - 1) / N;
        const int32_t *idx = s.packed + first;
        FilterVectors<SPP, true>(p, p.fine, 0, np, nullptr, idx, false, s, s.resultFine);
        for (size_t x = 0; x < count; x++)
            for (int q = 0; q < SPP; q++)
                outRow[(size_t)idx[x] * SPP + q] = (unsigned char)s.resultFine[q * B + x];
    }
}

// Row j: blocks of whole vectors, then the packed sweep, then the pixels
// that do not fill a vector through the per-pixel code.
template <int SPP>
void FilterRowSpp(const Pass &level, int j, const Scratch &s) {
    Pass p = level;
    p.normal = rowKernel(level.normal, p.width, p.ringRows, j, s.rowOffset);
    p.fine = rowKernel(level.fine, p.width, p.ringRows, j, s.rowOffset + p.normal.n);
    const LevelPassArgs &a = *p.args;
    const int N = (int)hn::Lanes(DF());
    const int covered = a.iMax / N * N;  // pixels in whole vectors
    size_t packed = 0;
    for (int i0 = 0; i0 < covered; i0 += p.block) {
        const int count = std::min(p.block, covered - i0);
        const size_t nv = (size_t)(count / N);
        bool anyNormal = true, anyFine = false;
        if (p.useMap) ChooseBlock(p, j, i0, nv, s, packed, anyNormal, anyFine);
        FilterBlock<SPP>(p, (size_t)i0, nv, s, anyNormal, anyFine);
        StoreBlock<SPP>(p, j, i0, count, s);
    }
    PackedSweep<SPP>(p, j, packed, s);
    for (int i = covered; i < a.iMax; i++) filterPixel8(a, i, j, 0, s.kernel);
}

void FilterRow(const Pass &p, int j, const Scratch &s) {
    if (p.args->spp == 3)
        FilterRowSpp<3>(p, j, s);
    else
        FilterRowSpp<1>(p, j, s);
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumora {
namespace simd {

HWY_EXPORT(FloatLanes);
HWY_EXPORT(TargetName);
HWY_EXPORT(FilterRow);
HWY_EXPORT(RangeLookup);

void rangeLookup(const float *lut, bool oneSample, const int32_t *idx, size_t count,
                 float *out) {
    HWY_DYNAMIC_DISPATCH(RangeLookup)(lut, oneSample, idx, count, out);
}

// Vectors per block: the kernel choices, need lists and results of one
// block are worked out together.
constexpr size_t BLOCK_VECTORS = 64;

// Bytes of colour planes one band aims at, its shared rows included.
constexpr size_t BAND_PLANE_BYTES = 96u << 20;

int levelPassBandRows = 0;

const char *targetName() { return HWY_DYNAMIC_DISPATCH(TargetName)(); }

// Sizes of one level's SIMD pass.
struct Layout {
    size_t lanes;        // floats per vector of the chosen instruction set
    size_t width;        // pixels per row of the bordered copy
    int rows;            // rows of the copy and the two rows of slack after it
    int nNormal, nFine;  // entries of the kernels in use (nFine 0 without the map)
    size_t vectors;      // vectors per block
    size_t pieces[SCRATCH_PIECES];  // bytes of each piece of a thread's scratch
    size_t threadBytes;  // bytes of a thread's scratch
    int reachUp, reachDown;  // copy rows above and below a band's output rows its kernels read
    int bandRows;        // output rows per band
    int ringRows;        // rows of the colour planes' ring, 0 when they hold the whole copy
    size_t planeSize;    // pixels per plane
    bool lab;            // CIELab planes: a filtered colour level
    bool records;        // and the records of packed lanes: one steered by the map
    bool useMap;         // the bright map steers the kernels
};

struct LevelPlan {
    const LevelPassArgs *args;
    Layout layout;
    Pass pass;
    unsigned char *sample[3];  // the planes, writable
    float *lab[3];
    unsigned char *samples;    // the blocks behind them
    float *labPlanes;
    float *records;
    ptrdiff_t *offsets;
    float *factors;
    unsigned char *scratch;    // every thread's Scratch pieces
    void (*filterRow)(const Pass &, int, const Scratch &);
};

namespace {

// Covered: 8-bit one- and three-sample images with their border built in,
// guided by themselves. The debug dump of fusion2f stays with the per-pixel
// code.
bool covers(const LevelPassArgs &a) {
    if (a.bps != 8 || !a.imageHasBorder || !a.img->mainImageHasBorders || dbgTestImage)
        return false;
    if (a.spp != 1 && a.spp != 3) return false;
    if (a.filterImg != a.img || a.filterSpp != a.spp || a.filterBps != a.bps ||
        a.filterExtendedRowStride != a.extendedRowStride)
        return false;
    if (a.iMax <= 0 || a.jMax <= 0 || a.extendedRowStride % a.spp != 0) return false;
    if (!a.levelGaussOnly && a.spp == 3 && labLUT == nullptr) return false;
    const bool useMap = !a.levelGaussOnly && levelUsesBrightMap(a);
    return a.numKernelEntries >= 1 && (!useMap || a.numFineKernelEntries >= 1);
}

// Copy rows a band of output rows [j0, j1) reads through the planes:
// [j0 - reachUp, j1 + reachDown), from the kernels' extreme entries (the
// last vector of a row may run one row on).
void reachOf(const LevelPassArgs &a, Layout &l) {
    ptrdiff_t lowest = 0, highest = 0;
    const ptrdiff_t width = (ptrdiff_t)l.width;
    for (int e = 0; e < l.nNormal + l.nFine; e++) {
        const KernelEntry &k = e < l.nNormal ? a.spatialKernel[e] : a.spatialKernelFine[e - l.nNormal];
        const ptrdiff_t o = (ptrdiff_t)k.ypos * width + k.xpos;
        lowest = std::min(lowest, o);
        highest = std::max(highest, o);
    }
    l.reachUp = (int)((-lowest + width - 1) / width);
    l.reachDown = (int)(highest / width) + 1;
}

// One-sample copies are their own plane: a single band. Colour bands keep
// their planes near BAND_PLANE_BYTES, but at least 64 output rows, so the
// shared rows are not moved too often and the team has rows enough to share.
int bandRowsOf(const LevelPassArgs &a, const Layout &l, int team) {
    if (a.spp != 3) return a.jMax;
    const size_t pixelBytes = 3 + (l.lab ? 3 * sizeof(float) : 0) + (l.records ? 16 : 0);
    const long fit = (long)(BAND_PLANE_BYTES / (l.width * pixelBytes)) - l.reachUp - l.reachDown;
    const int rows = levelPassBandRows > 0 ? levelPassBandRows
                                           : (int)std::max<long>(fit, std::max(64, 4 * team));
    return std::min(rows, a.jMax);
}

Layout layoutOf(const LevelPassArgs &a, int nbProc, size_t lanes) {
    Layout l{};
    l.lanes = lanes;
    l.width = (size_t)(a.extendedRowStride / a.spp);
    l.rows = a.jMax + 2 * a.img->borderWidth + 2;
    l.lab = !a.levelGaussOnly && a.spp == 3;
    l.useMap = !a.levelGaussOnly && levelUsesBrightMap(a);
    l.records = l.lab && l.useMap;
    l.nNormal = a.numKernelEntries;
    l.nFine = l.useMap ? a.numFineKernelEntries : 0;
    const int nMax = std::max(std::max(l.nNormal, l.nFine), 1);
    l.vectors = BLOCK_VECTORS;
    const size_t block = l.vectors * lanes;
    // Per thread, each piece rounded up to 64 bytes: one vector's weights,
    // two result blocks, choices, the two need lists, a row of packed
    // columns (padded to whole vectors) and the row's entry offsets.
    const auto round64 = [](size_t bytes) { return (bytes + 63) & ~(size_t)63; };
    const size_t sizes[SCRATCH_PIECES] = {nMax * lanes * sizeof(float),
                                          a.spp * block * sizeof(int32_t),
                                          a.spp * block * sizeof(int32_t),
                                          block * sizeof(KernelChoice),
                                          2 * l.vectors,
                                          ((size_t)a.iMax + lanes) * sizeof(int32_t),
                                          (size_t)(l.nNormal + l.nFine) * sizeof(ptrdiff_t)};
    for (int q = 0; q < SCRATCH_PIECES; q++) l.threadBytes += l.pieces[q] = round64(sizes[q]);
    reachOf(a, l);
    l.bandRows = bandRowsOf(a, l, std::max(nbProc, 1));
    const int held = l.bandRows + l.reachUp + l.reachDown;
    l.ringRows = a.spp == 3 && held < l.rows ? held : 0;
    l.planeSize = l.width * (size_t)(l.ringRows > 0 ? l.ringRows + 1 : l.rows);
    return l;
}

// The plan's blocks: a one-sample copy is its own sample plane; a colour
// copy is split into three, plus L, A and B when its level is filtered.
bool allocatePlanes(LevelPlan &p, int team) {
    const Layout &l = p.layout;
    const int spp = p.args->spp;
    if (spp == 3) p.samples = static_cast<unsigned char *>(allocate(l.planeSize * 3));
    if (l.lab) p.labPlanes = static_cast<float *>(allocate(l.planeSize * 3 * sizeof(float)));
    if (l.records) p.records = static_cast<float *>(allocate(l.planeSize * 4 * sizeof(float)));
    const size_t entries = (size_t)(l.nNormal + l.nFine + 1);
    p.offsets = static_cast<ptrdiff_t *>(allocate(entries * sizeof(ptrdiff_t)));
    p.factors = static_cast<float *>(allocate(entries * sizeof(float)));
    p.scratch = static_cast<unsigned char *>(allocate(l.threadBytes * team));
    if ((spp == 3 && p.samples == nullptr) || (l.lab && p.labPlanes == nullptr) ||
        (l.records && p.records == nullptr) ||
        p.offsets == nullptr || p.factors == nullptr || p.scratch == nullptr)
        return false;
    p.sample[0] = p.args->img->image;
    for (int q = 0; q < 3 && spp == 3; q++) p.sample[q] = p.samples + l.planeSize * q;
    for (int q = 0; q < 3 && l.lab; q++) p.lab[q] = p.labPlanes + l.planeSize * q;
    return true;
}

// The kernels addressed in the planes, and what every row reads.
void planPass(LevelPlan &p) {
    const LevelPassArgs &a = *p.args;
    const Layout &l = p.layout;
    const auto plan = [&](KernelPlan &k, const KernelEntry *kernel, int n, int first) {
        for (int e = 0; e < n; e++) {
            p.offsets[first + e] = (ptrdiff_t)kernel[e].ypos * (ptrdiff_t)l.width + kernel[e].xpos;
            p.factors[first + e] = kernel[e].factor;
        }
        k = {p.offsets + first, p.factors + first, n, n / 2};
    };
    Pass &pass = p.pass;
    pass.args = &a;
    for (int q = 0; q < 3; q++) {
        pass.sample[q] = p.sample[q];
        pass.lab[q] = p.lab[q];
    }
    pass.record = p.records;
    pass.width = l.width;
    pass.ringRows = l.ringRows;
    pass.useMap = l.useMap;
    pass.block = (int)(l.vectors * l.lanes);
    plan(pass.normal, a.spatialKernel, l.nNormal, 0);
    plan(pass.fine, a.spatialKernelFine, l.nFine, l.nNormal);
}

// The copy rows [lo, hi) the band from j0 reads through the planes.
void bandSpan(const LevelPlan &p, int j0, int *lo, int *hi) {
    const Layout &l = p.layout;
    const int j1 = std::min(j0 + l.bandRows, p.args->jMax);
    *lo = std::max(0, j0 - l.reachUp);
    *hi = std::min(l.rows, j1 + l.reachDown);
}

// Thread t's scratch, with its kernel buffer.
Scratch scratchOf(const LevelPlan &p, int t, KernelEntry *kernel) {
    unsigned char *piece[SCRATCH_PIECES];
    unsigned char *mine = p.scratch + p.layout.threadBytes * t;
    for (int q = 0; q < SCRATCH_PIECES; q++) {
        piece[q] = mine;
        mine += p.layout.pieces[q];
    }
    Scratch s;
    s.weights = reinterpret_cast<float *>(piece[0]);
    s.resultNormal = reinterpret_cast<int32_t *>(piece[1]);
    s.resultFine = reinterpret_cast<int32_t *>(piece[2]);
    s.choice = reinterpret_cast<KernelChoice *>(piece[3]);
    s.need = piece[4];
    s.packed = reinterpret_cast<int32_t *>(piece[5]);
    s.rowOffset = reinterpret_cast<ptrdiff_t *>(piece[6]);
    s.kernel = kernel;
    return s;
}

}  // namespace

LevelPlan *planLevel(int nbProc, const LevelPassArgs &a) {
    if (!covers(a)) return nullptr;
    LevelPlan *p = static_cast<LevelPlan *>(allocateZeroed(1, sizeof(LevelPlan)));
    if (p == nullptr) return nullptr;
    p->args = &a;
    // Choose the instruction set first: the lane count and the row function
    // must come from the same one.
    p->layout = layoutOf(a, nbProc, HWY_DYNAMIC_DISPATCH(FloatLanes)());
    p->filterRow = HWY_DYNAMIC_DISPATCH(FilterRow);
    if (!allocatePlanes(*p, std::max(nbProc, 1))) {
        releaseLevelPlan(p);
        return nullptr;
    }
    planPass(*p);
    return p;
}

void releaseLevelPlan(LevelPlan *p) {
    if (p == nullptr) return;
    release(p->samples);
    release(p->labPlanes);
    release(p->records);
    release(p->offsets);
    release(p->factors);
    release(p->scratch);
    release(p);
}

int bandRows(const LevelPlan &p) { return p.layout.bandRows; }

bool loadsBands(const LevelPlan &p) { return p.args->spp == 3; }

void loadBand(const LevelPlan &p, int j0, int t, int T) {
    const Layout &l = p.layout;
    int lo, hi, heldBefore = 0, r0, r1;
    bandSpan(p, j0, &lo, &hi);
    if (j0 > 0) bandSpan(p, j0 - l.bandRows, &r0, &heldBefore);
    const int first = std::max(lo, heldBefore);  // the rows the band adds
    staticBlock(hi - first, t, T, &r0, &r1);
    for (int r = first + r0; r < first + r1; r++) {
        const int slot = l.ringRows > 0 ? r % l.ringRows : r;
        convertRow(*p.args, p.sample, p.lab, p.records, l.width, r, slot);
        if (l.ringRows > 0 && slot == 0)
            convertRow(*p.args, p.sample, p.lab, p.records, l.width, r, l.ringRows);
    }
}

void filterRow(const LevelPlan &p, int j, int t, KernelEntry *bilateralKernel) {
    p.filterRow(p.pass, j, scratchOf(p, t, bilateralKernel));
}

}  // namespace simd
}  // namespace lumora
#endif  // HWY_ONCE
