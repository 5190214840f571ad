// SIMD 8-bit level pass: the per-target kernels that fill a row.
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
// The level pass (level_pass.cpp) runs the thread team; the plan
// (level_pass_plan.cpp) lays out the planes each row reads. Rows are
// filtered a few neighbouring vectors at a time (one where the bright map
// leaves a vector alone, and on AVX-512 and SVE): first the weights of all
// their entries (into a buffer that stays in the first-level cache) and
// their sums, then the convolution sums, all in registers; the range table
// is read by gathers or, on AVX2 where they measure faster, by scalar loads
// (range_table-inl.h), and the planes of the wide kernels' far-apart
// entries are prefetched a few vectors ahead.
//
// Compiled once per instruction set (Highway's foreach_target), AVX2's
// kernels once per way of reading the table; the best instruction set the
// processor supports is chosen at run time, and on AVX2 the faster reads by
// a short measurement on first use.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "filter/filter.h"
#include "filter/level_pass_simd.h"
#include "tables/tables.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "filter/level_pass_hwy.cpp"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "filter/range_table-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
// hn, DF and DI come with the range-table reads.

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
// sample; the plane's slack rows keep the extra bytes in bounds): gathered,
// or loaded lane by lane as RangeWeight loads (on the AMD EPYC the
// one-sample map level took 1.46-1.67 ns per pixel-entry against 1.71-1.74
// with these bytes gathered, three interleaved runs).
template <LaneReads R = LaneReads::Gather>
HWY_INLINE hn::Vec<DI> GatherBytes(const unsigned char *plane, ptrdiff_t o, hn::Vec<DI> idx) {
#if HWY_TARGET == HWY_AVX2
    if constexpr (R == LaneReads::Loads) {
        const unsigned char *p = plane + o;
        int32_t v[8];
        LoadEachLane(
            idx,
            [p](uint32_t at) {
                int32_t word;
                std::memcpy(&word, p + at, sizeof word);
                return word;
            },
            v);
        const __m128i low = _mm_setr_epi32(v[0], v[1], v[2], v[3]);
        const __m128i high = _mm_setr_epi32(v[4], v[5], v[6], v[7]);
        return hn::Vec<DI>{_mm256_set_m128i(high, low)};
    }
#endif
    return hn::GatherOffset(DI(), reinterpret_cast<const int32_t *>(plane + o), idx);
}

// x86 and NEON read a packed vector's records a block at a time: one
// 16-byte load per lane, then a 4x4 transpose inside each 128-bit block.
// On AVX2 (AMD EPYC, the 12 MP colour map level, one thread, interleaved
// runs) that measured 10-19 % faster than four gathers. Scalable vectors
// keep the gathers.
#undef LUMORA_RECORD_BLOCKS
#if (HWY_ARCH_X86 && HWY_TARGET != HWY_EMU128 && HWY_TARGET != HWY_SCALAR) || \
    HWY_TARGET == HWY_NEON
#define LUMORA_RECORD_BLOCKS 1
#else
#define LUMORA_RECORD_BLOCKS 0
#endif

#if LUMORA_RECORD_BLOCKS
// Block b of the vector: the record of the lane at[4b] stands for.
template <class D>
HWY_INLINE hn::Vec<D> RecordBlocks(D d, const float *base, const int32_t *at) {
    if constexpr (hn::MaxLanes(D()) <= 4) {
        return hn::LoadU(d, base + at[0]);
    } else {
        const hn::Half<D> dh;
        return hn::Combine(d, RecordBlocks(dh, base, at + hn::MaxLanes(dh)),
                           RecordBlocks(dh, base, at));
    }
}
#endif

// The packed lanes' records (lane x's at base + at[x], at[] the lanes of
// quads): their L, A and B, and their bytes in one int32 each.
HWY_INLINE void Records(const float *base, const int32_t *at, hn::Vec<DI> quads, hn::Vec<DF> &L,
                        hn::Vec<DF> &A, hn::Vec<DF> &B, hn::Vec<DI> &bytes) {
    const DF df;
#if LUMORA_RECORD_BLOCKS
    (void)quads;
    const hn::Repartition<uint64_t, DF> du;
    const auto v0 = RecordBlocks(df, base, at), v1 = RecordBlocks(df, base, at + 1);
    const auto v2 = RecordBlocks(df, base, at + 2), v3 = RecordBlocks(df, base, at + 3);
    // Each block: L0 L1 A0 A1, L2 L3 A2 A3, B0 B1 W0 W1, B2 B3 W2 W3.
    const auto la01 = hn::BitCast(du, hn::InterleaveLower(df, v0, v1));
    const auto la23 = hn::BitCast(du, hn::InterleaveLower(df, v2, v3));
    const auto bw01 = hn::BitCast(du, hn::InterleaveUpper(df, v0, v1));
    const auto bw23 = hn::BitCast(du, hn::InterleaveUpper(df, v2, v3));
    L = hn::BitCast(df, hn::InterleaveLower(du, la01, la23));
    A = hn::BitCast(df, hn::InterleaveUpper(du, la01, la23));
    B = hn::BitCast(df, hn::InterleaveLower(du, bw01, bw23));
    bytes = hn::BitCast(DI(), hn::InterleaveUpper(du, bw01, bw23));
#else
    (void)at;
    L = hn::GatherIndex(df, base, quads);
    A = hn::GatherIndex(df, base + 1, quads);
    B = hn::GatherIndex(df, base + 2, quads);
    bytes = hn::GatherIndex(DI(), reinterpret_cast<const int32_t *>(base + 3), quads);
#endif
}

// The lookups alone, over count indices (a multiple of the lane count).
template <LaneReads R>
void LookupWith(const float *lut, const int32_t *idx, size_t count, float *out) {
    const DF df;
    const DI di;
    for (size_t x = 0; x < count; x += hn::Lanes(df))
        hn::StoreU(RangeWeight<R>(lut, hn::LoadU(di, idx + x)), df, out + x);
}

void RangeLookup(const float *lut, const int32_t *idx, size_t count, float *out,
                 LaneReads reads) {
    if (reads == LaneReads::Loads)
        LookupWith<SecondReads()>(lut, idx, count, out);
    else
        LookupWith<LaneReads::Gather>(lut, idx, count, out);
}

// ---------------------------------------------------------------------------
// Whole vectors, one at a time: for each vector of neighbouring pixels the
// weights of all its entries (into a buffer of one vector per entry, which
// stays in the first-level cache) with their sum in a register, then the
// normalised weights and the convolution sums, also in registers. Every lane
// still runs its own pixel's entries in kernel order.

// Reads of the entry planes two vectors (or runs of vectors) ahead of the
// current one, and of the byte planes one cache line ahead every 64 pixels:
// the wide kernels' entries are rows apart, beyond the hardware prefetcher's reach. Into the
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

// The lanes' samples from their bytes (low byte first).
template <int SPP>
HWY_INLINE void SamplesOf(hn::Vec<DI> bytes, hn::Vec<DF> &s0, hn::Vec<DF> &s1, hn::Vec<DF> &s2) {
    s0 = ByteOf<0>(bytes);
    if constexpr (SPP == 3) {
        s1 = ByteOf<1>(bytes);
        s2 = ByteOf<2>(bytes);
    }
}

// The lanes' samples at entry offset o (packed: one-sample lanes only; a
// packed colour vector's come with its records).
template <int SPP, bool PACKED>
HWY_INLINE void Samples(const LaneSource<SPP, PACKED> &src, ptrdiff_t o, hn::Vec<DI> lanes,
                        hn::Vec<DF> &s0, hn::Vec<DF> &s1, hn::Vec<DF> &s2) {
    if constexpr (PACKED) {
        static_assert(SPP == 1, "packed colour samples come with the records");
        SamplesOf<1>(GatherBytes(src.S0, o, lanes), s0, s1, s2);
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

// The per-pixel arithmetic of one entry, shared by the one-vector and the
// run paths so that both keep its operations in the same order.

// A colour entry's range-table index: the squared CIELab distance, each
// square rounded (no fused multiply-add), L and A summed first; past the
// table (EXP_LUT_ENTRIES or more) its last entry. As a minimum, one
// instruction: a distance between the last entry and the table's end
// truncates to the last entry all the same.
HWY_INLINE hn::Vec<DI> ColourIndex(hn::Vec<DF> L, hn::Vec<DF> A, hn::Vec<DF> B, hn::Vec<DF> cL,
                                   hn::Vec<DF> cA, hn::Vec<DF> cB) {
    const DF df;
    const auto dL = hn::Sub(L, cL), dA = hn::Sub(A, cA), dB = hn::Sub(B, cB);
    const auto dist = hn::Add(hn::Add(hn::Mul(dL, dL), hn::Mul(dA, dA)), hn::Mul(dB, dB));
    return TruncateInRange(hn::Min(dist, hn::Set(df, (float)(EXP_LUT_ENTRIES - 1))));
}

// A one-sample entry's: the brightness difference, unclamped.
HWY_INLINE hn::Vec<DI> GreyIndex(hn::Vec<DF> bright, hn::Vec<DF> centreBright) {
    return TruncateInRange(hn::Abs(hn::Sub(bright, centreBright)));
}

bool HasLoads() { return OffersLoads(); }

// The yardstick of the choice between the reads: a colour level's weights
// (three planes read at every entry's offset, the squared distance, the
// table read, the spatial multiply and the sum), over `pixels` pixels of
// planes L, A and B of `stride` floats each, with `entries` offsets below
// stride - pixels, with reads R. Returns the time taken in seconds. An
// isolated loop of table reads would not do: on the AMD EPYC it ran the
// loads twice as fast as the gather where the levels gained about a tenth.
template <LaneReads R>
double WeightsSeconds(const float *lut, const float *planes, size_t stride, size_t pixels,
                      const size_t *offset, size_t entries) {
    const DF df;
    const size_t N = hn::Lanes(df);
    const float *L = planes, *A = planes + stride, *B = planes + 2 * stride;
    const auto start = std::chrono::steady_clock::now();
    auto total = hn::Zero(df);
    for (size_t x = 0; x + N <= pixels; x += N) {
        const auto cL = hn::LoadU(df, L + x), cA = hn::LoadU(df, A + x), cB = hn::LoadU(df, B + x);
        auto sum = hn::Zero(df);
        for (size_t e = 0; e < entries; e++) {
            const size_t o = offset[e] + x;
            const auto index = ColourIndex(hn::LoadU(df, L + o), hn::LoadU(df, A + o),
                                           hn::LoadU(df, B + o), cL, cA, cB);
            sum = hn::Add(sum, hn::Mul(hn::Set(df, 0.5f), RangeWeight<R>(lut, index)));
        }
        total = hn::Add(total, sum);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    // The sum escapes, so that the loop is not optimised away.
    volatile float sink = hn::GetLane(total);
    (void)sink;
    return seconds.count();
}

double TimeReads(const float *lut, const float *planes, size_t stride, size_t pixels,
                 const size_t *offset, size_t entries, LaneReads reads) {
    return reads == LaneReads::Loads
               ? WeightsSeconds<SecondReads()>(lut, planes, stride, pixels, offset, entries)
               : WeightsSeconds<LaneReads::Gather>(lut, planes, stride, pixels, offset, entries);
}

// Whether a vector's weights are divided by their sum: wherever its
// truncation is non-zero (the per-pixel test |(int)sum| > 1e-5, i.e.
// |sum| >= 1).
HWY_INLINE hn::Mask<DF> Divides(hn::Vec<DF> sum) {
    const DF df;
    return hn::Ge(hn::Abs(sum), hn::Set(df, 1.0f));
}

// A weight as the convolution uses it.
HWY_INLINE hn::Vec<DF> Normalised(hn::Vec<DF> weight, hn::Vec<DF> sum, hn::Mask<DF> divide) {
    return hn::IfThenElse(divide, hn::Div(weight, sum), weight);
}

// The bilateral weights of a colour vector's entries into w (one vector per
// entry), returning their sum. A packed vector's bytes at each entry go
// into stash, so that its sums read them without a second gather.
template <LaneReads R, bool PACKED>
HWY_INLINE hn::Vec<DF> ColourWeights(const LaneSource<3, PACKED> &src, const KernelPlan &k,
                                     const float *HWY_RESTRICT lut, hn::Vec<DI> quads,
                                     float *HWY_RESTRICT w, int32_t *HWY_RESTRICT stash) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    LaneStarts starts;
    if constexpr (PACKED) hn::StoreU(quads, di, starts.at);
    hn::Vec<DF> L, A, B;
    hn::Vec<DI> bytes;
    const auto read = [&](ptrdiff_t o) {
        if constexpr (PACKED) {
            Records(src.R + 4 * o, starts.at, quads, L, A, B, bytes);
        } else {
            L = hn::LoadU(df, src.L + o + src.x);
            A = hn::LoadU(df, src.A + o + src.x);
            B = hn::LoadU(df, src.Bp + o + src.x);
        }
    };
    read(k.offset[k.centre]);
    const auto cL = L, cA = A, cB = B;
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
        read(o);
        if constexpr (PACKED) hn::StoreU(bytes, di, stash + e * N);
        const auto weight = hn::Mul(hn::Set(df, k.factor[e]),
                                    RangeWeight<R>(lut, ColourIndex(L, A, B, cL, cA, cB)));
        hn::StoreU(weight, df, w + e * N);
        sum = hn::Add(sum, weight);
    }
    return sum;
}

// The same for a one-sample vector. Brightness is the spatial weight plus the
// sample (the per-pixel code starts its sum from the copied weight, and
// dividing by one sample changes nothing).
template <LaneReads R, bool PACKED>
HWY_INLINE hn::Vec<DF> GreyWeights(const LaneSource<1, PACKED> &src, const KernelPlan &k,
                                   const float *HWY_RESTRICT lut, hn::Vec<DI> lanes,
                                   float *HWY_RESTRICT w, int32_t *HWY_RESTRICT stash) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    hn::Vec<DF> s0, unused1, unused2;
    Samples(src, k.offset[k.centre], lanes, s0, unused1, unused2);
    const auto centreBright = hn::Add(hn::Set(df, k.factor[k.centre]), s0);
    LaneStarts starts;
    if constexpr (PACKED) hn::StoreU(lanes, di, starts.at);
    auto sum = hn::Zero(df);
    for (int e = 0; e < k.n; e++) {
        if constexpr (PACKED) {
            if (e + PACKED_AHEAD < k.n) PrefetchLanes(src.S0 + k.offset[e + PACKED_AHEAD], starts, N);
            const auto bytes = GatherBytes<R>(src.S0, k.offset[e], lanes);
            hn::StoreU(bytes, di, stash + e * N);
            SamplesOf<1>(bytes, s0, unused1, unused2);
        } else {
            Samples(src, k.offset[e], lanes, s0, unused1, unused2);
        }
        const auto spatial = hn::Set(df, k.factor[e]);
        const auto bright = hn::Add(spatial, s0);
        const auto weight = hn::Mul(spatial, RangeWeight<R>(lut, GreyIndex(bright, centreBright)));
        hn::StoreU(weight, df, w + e * N);
        sum = hn::Add(sum, weight);
    }
    return sum;
}

// The convolution sums of one vector, entry by entry: with the kernel's own
// weights (gauss), or with the weights in w as Normalised makes them. A
// packed vector's samples are the bytes its weights pass stashed.
template <int SPP, bool PACKED>
HWY_INLINE void ConvolutionSums(const LaneSource<SPP, PACKED> &src, const KernelPlan &k,
                                hn::Vec<DI> lanes, bool gauss, const float *HWY_RESTRICT w,
                                const int32_t *HWY_RESTRICT stash, hn::Vec<DF> sum,
                                hn::Vec<DF> &acc0, hn::Vec<DF> &acc1, hn::Vec<DF> &acc2) {
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
    if constexpr (!PACKED) {
        if (gauss) {
            for (int e = 0; e < k.n; e++) {
                Samples(src, k.offset[e], lanes, s0, s1, s2);
                accumulate(hn::Set(df, k.factor[e]));
            }
            return;
        }
    }
    const auto divide = Divides(sum);
    for (int e = 0; e < k.n; e++) {
        if constexpr (PACKED)
            SamplesOf<SPP>(hn::LoadU(DI(), stash + e * N), s0, s1, s2);
        else
            Samples(src, k.offset[e], lanes, s0, s1, s2);
        accumulate(Normalised(hn::LoadU(df, w + e * N), sum, divide));
    }
}

// Runs of neighbouring vectors (FilterNeighbours) on the fixed-width targets
// but AVX-512. Scalable vectors (SVE) cannot be held in arrays. On AVX-512
// (Intel Xeon, Sapphire Rapids or later, one thread, 12 MP level pass
// benchmark, ns per pixel-entry) runs took twice as long as single vectors:
// colour level 1 1.43-1.59 against 0.78-0.81, level 2 3.5-4.0 against
// 1.3-1.8, colour map 4.1-4.7 against 2.6-3.1, one-sample 0.95-1.02 against
// 0.64; sixteen-lane runs of 32 and 64 pixels spill far more than AVX2's.
#undef LUMORA_RUNS_OF_VECTORS
#if HWY_HAVE_SCALABLE || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
#define LUMORA_RUNS_OF_VECTORS 0
#else
#define LUMORA_RUNS_OF_VECTORS 1
#endif

// Whether this instruction set filters runs of vectors (its weight scratch
// holds a run's).
bool RunsOfVectors() { return LUMORA_RUNS_OF_VECTORS != 0; }

#if LUMORA_RUNS_OF_VECTORS
// Runs f(u) for u = 0 .. V - 1, written out.
template <size_t V, class F>
HWY_INLINE void Each(F &&f) {
    [&]<size_t... u>(std::index_sequence<u...>) {
        (f(u), ...);
    }(std::make_index_sequence<V>{});
}

// V neighbouring vectors of unpacked lanes at once (the block's pixels
// x .. x + V * N - 1): the arithmetic of ColourWeights or GreyWeights and
// of ConvolutionSums lane by lane, with each entry's reads of all V vectors
// side by side. An entry's cache lines and pages are then reached once for
// them all (the wide kernels' entries lie rows apart, beyond the first-level
// cache and its address translations from one vector to the next, and two
// threads of one core share both), and V independent range-table reads are
// in flight. On AVX2 (AMD EPYC, 2 threads) the 12 MP textured fusion took
// 39 s against 46 s one vector at a time. Truncated sums into result as
// FilterVectors stores them.
template <LaneReads R, int SPP, size_t V = (size_t)vectorsAtOnce(SPP)>
HWY_INLINE void FilterNeighbours(const LaneSource<SPP, false> &src, const KernelPlan &k,
                                 const float *HWY_RESTRICT lut, float *HWY_RESTRICT w, size_t B,
                                 int32_t *HWY_RESTRICT result) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const ptrdiff_t x = (ptrdiff_t)src.x;
    hn::Vec<DF> sum[V], c0[V], c1[V], c2[V];
    Each<V>([&](size_t u) { sum[u] = hn::Zero(df); });
    const ptrdiff_t c = k.offset[k.centre] + x;
    if constexpr (SPP == 3) {
        Each<V>([&](size_t u) {
            c0[u] = hn::LoadU(df, src.L + c + u * N);
            c1[u] = hn::LoadU(df, src.A + c + u * N);
            c2[u] = hn::LoadU(df, src.Bp + c + u * N);
        });
        for (int e = 0; e < k.n; e++) {
            const ptrdiff_t o = k.offset[e] + x;
            PrefetchAhead(src.L + o + 2 * V * N);
            PrefetchAhead(src.A + o + 2 * V * N);
            PrefetchAhead(src.Bp + o + 2 * V * N);
            const auto spatial = hn::Set(df, k.factor[e]);
            Each<V>([&](size_t u) {
                const auto index =
                    ColourIndex(hn::LoadU(df, src.L + o + u * N), hn::LoadU(df, src.A + o + u * N),
                                hn::LoadU(df, src.Bp + o + u * N), c0[u], c1[u], c2[u]);
                const auto weight = hn::Mul(spatial, RangeWeight<R>(lut, index));
                hn::StoreU(weight, df, w + (V * e + u) * N);
                sum[u] = hn::Add(sum[u], weight);
            });
        }
    } else {
        const auto centreSpatial = hn::Set(df, k.factor[k.centre]);
        Each<V>([&](size_t u) { c0[u] = hn::Add(centreSpatial, LoadSamples(src.S0 + c + u * N)); });
        for (int e = 0; e < k.n; e++) {
            const ptrdiff_t o = k.offset[e] + x;
            if (src.lineStart) PrefetchAhead(src.S0 + o + 64);
            const auto spatial = hn::Set(df, k.factor[e]);
            Each<V>([&](size_t u) {
                const auto bright = hn::Add(spatial, LoadSamples(src.S0 + o + u * N));
                const auto weight = hn::Mul(spatial, RangeWeight<R>(lut, GreyIndex(bright, c0[u])));
                hn::StoreU(weight, df, w + (V * e + u) * N);
                sum[u] = hn::Add(sum[u], weight);
            });
        }
    }
    hn::Mask<DF> divide[V];
    Each<V>([&](size_t u) {
        divide[u] = Divides(sum[u]);
        c0[u] = c1[u] = c2[u] = hn::Zero(df);  // now the sums of the samples
    });
    for (int e = 0; e < k.n; e++) {
        const ptrdiff_t o = k.offset[e] + x;
        if constexpr (SPP == 3) {  // a one-sample run's weights pass fetched its line
            if (src.lineStart) {
                PrefetchAhead(src.S0 + o + 64);
                PrefetchAhead(src.S1 + o + 64);
                PrefetchAhead(src.S2 + o + 64);
            }
        }
        Each<V>([&](size_t u) {
            const auto n = Normalised(hn::LoadU(df, w + (V * e + u) * N), sum[u], divide[u]);
            c0[u] = hn::Add(c0[u], hn::Mul(LoadSamples(src.S0 + o + u * N), n));
            if constexpr (SPP == 3) {
                c1[u] = hn::Add(c1[u], hn::Mul(LoadSamples(src.S1 + o + u * N), n));
                c2[u] = hn::Add(c2[u], hn::Mul(LoadSamples(src.S2 + o + u * N), n));
            }
        });
    }
    Each<V>([&](size_t u) {
        hn::StoreU(hn::ConvertTo(di, c0[u]), di, result + x + u * N);
        if constexpr (SPP == 3) {
            hn::StoreU(hn::ConvertTo(di, c1[u]), di, result + B + x + u * N);
            hn::StoreU(hn::ConvertTo(di, c2[u]), di, result + 2 * B + x + u * N);
        }
    });
}
#endif  // LUMORA_RUNS_OF_VECTORS

// The nv vectors of a block from column `base` of a row, with kernel k
// addressed for that row, that `need` marks (null: all): their truncated
// convolution sums into
// result[sample * block + lane]. gauss: the kernel's own weights. Filtered
// unpacked vectors go by runs of neighbours where a whole run is needed.
//
// PACKED: lane x stands for the pixel idx[x] places after `base` instead of
// the x-th, and its reads become per-lane reads (of a colour level's
// records, so that a lane's entry costs one cache line), made once: the
// weights pass stashes the bytes the sums need. This packs the few
// fine-kernel pixels of sparse vectors into full vectors.
template <LaneReads R, int SPP, bool PACKED>
HWY_INLINE void FilterVectors(const Pass &p, const KernelPlan &k, size_t base, size_t nv,
                              const unsigned char *need, const int32_t *idx, bool gauss,
                              const Scratch &s, int32_t *HWY_RESTRICT result) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const size_t B = (size_t)p.block;
    LaneSource<SPP, PACKED> src = BlockSource<SPP, PACKED>(p, base, gauss);
    float *HWY_RESTRICT w = s.weights;  // entry e of the vector at w + e * N
    const float *HWY_RESTRICT lut = p.args->expLut;
    for (size_t v = 0, x = 0; v < nv; v++, x += N) {
        if (need != nullptr && !need[v]) continue;
        src.x = x;
        src.lineStart = !PACKED && x % 64 == 0;
#if LUMORA_RUNS_OF_VECTORS
        if constexpr (!PACKED) {
            // Filtered vectors in runs of V where all V are needed.
            constexpr size_t V = vectorsAtOnce(SPP);
            const auto needed = [](unsigned char n) { return n != 0; };
            if (!gauss && v + V <= nv &&
                (need == nullptr || std::all_of(need + v, need + v + V, needed))) {
                FilterNeighbours<R, SPP>(src, k, lut, w, B, result);
                v += V - 1, x += (V - 1) * N;
                continue;
            }
        }
#endif
        const auto lanes = PACKED ? hn::LoadU(di, idx + x) : hn::Zero(di);
        const auto quads = hn::ShiftLeft<2>(lanes);  // lanes' first floats in the records
        auto sum = hn::Zero(df);
        if (!gauss) {
            if constexpr (SPP == 3)
                sum = ColourWeights<R>(src, k, lut, quads, w, s.stash);
            else
                sum = GreyWeights<R>(src, k, lut, lanes, w, s.stash);
        }
        auto acc0 = hn::Zero(df), acc1 = hn::Zero(df), acc2 = hn::Zero(df);
        ConvolutionSums(src, k, lanes, gauss, w, s.stash, sum, acc0, acc1, acc2);
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
template <LaneReads R, int SPP>
HWY_INLINE void FilterBlock(const Pass &p, size_t base, size_t nv, const Scratch &s,
                            bool anyNormal, bool anyFine) {
    const size_t N = hn::Lanes(DF());
    if (p.args->levelGaussOnly) {
        FilterVectors<R, SPP, false>(p, p.normal, base, nv, nullptr, nullptr, true, s,
                                  s.resultNormal);
        return;
    }
    if (anyNormal)
        FilterVectors<R, SPP, false>(p, p.normal, base, nv, p.useMap ? s.need : nullptr, nullptr,
                                  false, s, s.resultNormal);
    if (anyFine)
        FilterVectors<R, SPP, false>(p, p.fine, base, nv, s.need + p.block / N, nullptr, false, s,
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
template <LaneReads R, int SPP>
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
        FilterVectors<R, SPP, true>(p, p.fine, 0, np, nullptr, idx, false, s, s.resultFine);
        for (size_t x = 0; x < count; x++)
            for (int q = 0; q < SPP; q++)
                outRow[(size_t)idx[x] * SPP + q] = (unsigned char)s.resultFine[q * B + x];
    }
}

// Row j: blocks of whole vectors, then the packed sweep, then the pixels
// that do not fill a vector through the per-pixel code.
template <LaneReads R, int SPP>
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
        FilterBlock<R, SPP>(p, (size_t)i0, nv, s, anyNormal, anyFine);
        StoreBlock<SPP>(p, j, i0, count, s);
    }
    PackedSweep<R, SPP>(p, j, packed, s);
    for (int i = covered; i < a.iMax; i++) filterPixel8(a, i, j, 0, s.kernel);
}

template <LaneReads R>
void FilterRow(const Pass &p, int j, const Scratch &s) {
    if (p.args->spp == 3)
        FilterRowSpp<R, 3>(p, j, s);
    else
        FilterRowSpp<R, 1>(p, j, s);
}

// The row function with the given reads (the gather where the instruction
// set offers no other).
RowFunction RowWith(LaneReads reads) {
    return reads == LaneReads::Loads ? &FilterRow<SecondReads()> : &FilterRow<LaneReads::Gather>;
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumora {
namespace simd {

HWY_EXPORT(FloatLanes);
HWY_EXPORT(RunsOfVectors);
HWY_EXPORT(TargetName);
HWY_EXPORT(HasLoads);
HWY_EXPORT(TimeReads);
HWY_EXPORT(RowWith);
HWY_EXPORT(RangeLookup);

int laneReads = 0;

namespace {

// The faster reads on this processor, by the yardstick: synthetic CIELab
// planes (values below 37, so squared distances up to about 4100: the
// table's first fifth), 2048 pixels, 48 entries, five rounds of each read
// taken in turn, the best round of each counted. The loads must win by a
// tenth: where the two are near, the gather, which the other instruction
// sets use too, stays. About a millisecond (on the AMD EPYC the loads'
// best round took 0.62-0.80 of the gather's in five processes).
LaneReads measureReads() {
    constexpr size_t pixels = 2048, stride = 4096, entries = 48;
    std::vector<float> lut(EXP_LUT_ENTRIES), planes(3 * stride);
    for (int i = 0; i < EXP_LUT_ENTRIES; i++) lut[i] = 1.0f / (float)(i + 1);
    uint32_t state = 12345;  // not rand(): the fusions' sequence stays untouched
    for (float &v : planes) {
        state = state * 1664525u + 1013904223u;
        v = (float)(state >> 8) * (37.0f / 16777216.0f);
    }
    size_t offset[entries];
    for (size_t e = 0; e < entries; e++) offset[e] = e * 97 % (stride - pixels);
    double best[2] = {1e30, 1e30};
    for (int round = 0; round < 5; round++)
        for (LaneReads r : {LaneReads::Gather, LaneReads::Loads}) {
            const double t = HWY_DYNAMIC_DISPATCH(TimeReads)(lut.data(), planes.data(), stride,
                                                             pixels, offset, entries, r);
            best[(int)r] = std::min(best[(int)r], t);
        }
    return best[1] < 0.9 * best[0] ? LaneReads::Loads : LaneReads::Gather;
}

}  // namespace

LaneReads chosenLaneReads() {
    if (laneReads != 0) return laneReads == 2 ? LaneReads::Loads : LaneReads::Gather;
    if (!HWY_DYNAMIC_DISPATCH(HasLoads)()) return LaneReads::Gather;
    // Only the instruction set that has both gets here: one measurement.
    static const LaneReads measured = measureReads();
    return measured;
}

void rangeLookup(const float *lut, const int32_t *idx, size_t count, float *out,
                 LaneReads reads) {
    HWY_DYNAMIC_DISPATCH(RangeLookup)(lut, idx, count, out, reads);
}

const char *targetName() { return HWY_DYNAMIC_DISPATCH(TargetName)(); }

RowFunction rowFunction(size_t *lanes, bool *runs) {
    *lanes = HWY_DYNAMIC_DISPATCH(FloatLanes)();
    *runs = HWY_DYNAMIC_DISPATCH(RunsOfVectors)();
    return HWY_DYNAMIC_DISPATCH(RowWith)(chosenLaneReads());
}

}  // namespace simd
}  // namespace lumora
#endif  // HWY_ONCE
