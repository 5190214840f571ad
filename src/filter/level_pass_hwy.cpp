// SIMD 8-bit level pass.
//
// The lanes of a vector are neighbouring pixels of one row, never the
// entries of one pixel's kernel: every lane runs the per-pixel arithmetic of
// fusion2f and convolveFastSimple8 operation for operation (separate
// multiplies and adds, sums in entry order, IEEE division, truncating
// conversions), so each pixel gets the very bytes of the per-pixel code.
// Pixels that do not fill a vector, at the end of a row, go through the
// per-pixel code itself.
//
// So that an entry of neighbouring pixels lies in neighbouring memory, the
// bordered working copy is split into planes: one plane of bytes per sample
// (a one-sample copy is its own plane) and, for filtered colour levels,
// float planes of every pixel's L, A and B from the CIELab table. Colour
// planes hold only a horizontal band of the copy at a time, the rows one
// band of output rows reads; the next band keeps the rows both share (moved
// to the top) and converts the rest. Whole-image planes would cost a quarter
// of a gigabyte on a 12 MP picture. Rows are filtered in blocks of pixels,
// entry by entry across the block, so that the far-apart entries of the
// wide kernels read memory in long runs.
//
// Compiled once per instruction set (Highway's foreach_target); the best one
// the processor supports is chosen at run time.

#ifndef LUMORA_SIMD_LEVEL_PASS_SHARED
#define LUMORA_SIMD_LEVEL_PASS_SHARED

#include <omp.h>

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

// What the bright map asks of a pixel.
constexpr unsigned char CHOOSE_COPY = 0;
constexpr unsigned char CHOOSE_NORMAL = 1;
constexpr unsigned char CHOOSE_FINE = 2;
constexpr unsigned char CHOOSE_PACKED = 3;  // fine, computed in the row's packed sweep

// One sparse kernel addressed in the planes: entry e of the pixel whose
// window origin is plane index p lies at p + offset[e].
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
    size_t width;                    // pixels per row of the bordered copy
    size_t origin;                   // copy pixel index of the planes' first pixel
    KernelPlan normal;
    KernelPlan fine;
    bool useMap;
    int block;  // pixels filtered together, a multiple of the lane count
};

// One thread's working memory for a block of pixels.
struct Scratch {
    float *weights;          // entries x block bilateral weights
    float *sums;             // block weight sums
    float *acc;              // spp x block convolution sums
    int32_t *resultNormal;   // spp x block truncated sums, normal kernel
    int32_t *resultFine;     // likewise, fine kernel
    unsigned char *choice;   // block kernel choices
    unsigned char *need;     // 2 x block/lanes: vectors that need the normal / fine kernel
    int32_t *packed;         // row columns of the fine pixels computed packed
    KernelEntry *kernel;     // the per-pixel code's kernel buffer
};

// The bright map's choice for pixel (i, j), as the plain pass makes it.
inline unsigned char choiceOf(int bright, int i, int j) {
    if (bright == 0) return CHOOSE_COPY;
    if (bright < 10) return CHOOSE_NORMAL;
    if (bright > 200) return CHOOSE_FINE;
    int d = bright / 20;
    if (d == 0) d = 1;
    const int period = (int)((1.0 / d) * 20.0);
    return (i + j) % period == 0 ? CHOOSE_FINE : CHOOSE_NORMAL;
}

// Pixel (i, j) through the per-pixel functions, exactly as the plain pass
// treats an 8-bit pixel of a bordered image.
inline void plainPixel(const Pass &p, int i, int j, KernelEntry *bilateralKernel) {
    const LevelPassArgs &a = *p.args;
    unsigned char *window = a.img->image + (size_t)j * a.extendedRowStride + (size_t)i * a.spp;
    unsigned char *out = a.imgOutput + (size_t)j * a.rowStride + (size_t)i * a.spp;
    if (a.levelGaussOnly) {
        convolveFastSimple8(window, out, a.spp, a.extendedRowStride, a.logLut, a.unLogLut,
                            a.numKernelEntries, a.spatialKernel);
        return;
    }
    const int bright = p.useMap ? a.brightImage[(size_t)j * a.iMax + i] : 1;
    const unsigned char choice = choiceOf(bright, i, j);
    if (choice == CHOOSE_COPY) {
        std::memcpy(out,
                    window + (size_t)a.largestHalfKernelSize * a.extendedRowStride +
                        (size_t)a.largestHalfKernelSize * a.spp,
                    a.spp);
        return;
    }
    const bool fine = choice == CHOOSE_FINE;
    const int n = fine ? a.numFineKernelEntries : a.numKernelEntries;
    KernelEntry *kernel = fine ? a.spatialKernelFine : a.spatialKernel;
    fusion2f(a.iMax, a.jMax, a.filterSpp, a.filterBps, a.filterExtendedRowStride, a.filterImg,
             a.expLut, a.logLut, a.rgbeExpLut, i, j, a.largestPhysicalKernelSize,
             a.rangeKernelSigma, n, kernel, bilateralKernel);
    convolveFastSimple8(window, out, a.spp, a.extendedRowStride, a.logLut, a.unLogLut, n,
                        bilateralKernel);
}

// Rows [r0, r1) of the bordered colour copy into the planes, whose first
// row is copy row `top`. The two zero rows of slack after the copy are
// converted too: the per-pixel code can read them on small images, and it
// reads bytes 0, 0, 0 there, so the planes hold 0 and labLUT[0][0][0].
inline void convertRows(const LevelPassArgs &a, unsigned char *const *sample, float *const *lab,
                        size_t width, int top, int r0, int r1) {
    const unsigned char *q = a.img->image + (size_t)r0 * width * 3;
    for (size_t px = (size_t)(r0 - top) * width; px < (size_t)(r1 - top) * width; px++, q += 3) {
        sample[0][px] = q[0];
        sample[1][px] = q[1];
        sample[2][px] = q[2];
        if (lab[0] != nullptr) {
            const LABData &v = labLUT[q[0]][q[1]][q[2]];
            lab[0][px] = v.l;
            lab[1][px] = v.a;
            lab[2][px] = v.b;
        }
    }
}

// Plane rows [r0, r1) up by `shift` rows.
inline void moveRows(unsigned char *const *sample, float *const *lab, size_t width, int shift,
                     int r0, int r1) {
    const size_t from = (size_t)(r0 + shift) * width;
    const size_t to = (size_t)r0 * width;
    const size_t n = (size_t)(r1 - r0) * width;
    for (int q = 0; q < 3; q++) {
        std::memcpy(sample[q] + to, sample[q] + from, n);
        if (lab[q] != nullptr) std::memcpy(lab[q] + to, lab[q] + from, n * sizeof(float));
    }
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

// Within a block the loops run entry by entry and, for each entry, over the
// block's vectors: every plane row is then read in long contiguous runs. Each
// lane still sees its own entries in kernel order, so its sums are the
// per-pixel code's. `need` marks the vectors to compute (null: all).
//
// PACKED: lane x stands for the pixel idx[x] places after `base` instead of
// the x-th, and its plane reads become gathers. This packs the few
// fine-kernel pixels of sparse vectors into full vectors.

// Lane values of a float plane at entry offset o.
template <bool PACKED>
HWY_INLINE hn::Vec<DF> LoadLab(const float *plane, ptrdiff_t o, size_t x, const int32_t *idx) {
    if constexpr (PACKED)
        return hn::GatherIndex(DF(), plane + o, hn::LoadU(DI(), idx + x));
    else
        return hn::LoadU(DF(), plane + o + x);
}

// Byte q (0..2) of an int32 gathered from a byte plane, as float (exactly).
template <int Q>
HWY_INLINE hn::Vec<DF> ByteOf(hn::Vec<DI> word) {
    const DI di;
    return hn::ConvertTo(DF(), hn::And(hn::ShiftRight<8 * Q>(word), hn::Set(di, 0xFF)));
}

// Four bytes from each lane's pixel at entry offset o of a plane of `stride`
// bytes per pixel (the low byte is the lane's sample; the plane's slack rows
// keep the extra bytes in bounds).
template <int STRIDE>
HWY_INLINE hn::Vec<DI> GatherBytes(const unsigned char *plane, ptrdiff_t o, size_t x,
                                   const int32_t *idx) {
    const DI di;
    auto offset = hn::LoadU(di, idx + x);
    if constexpr (STRIDE == 3) offset = hn::Add(hn::Add(offset, offset), offset);
    return hn::GatherOffset(di, reinterpret_cast<const int32_t *>(plane + o * STRIDE), offset);
}

// Unnormalised bilateral weights (entry-major, block wide) and their sums.
// Colour images weigh by the squared Lab distance to the centre entry,
// clamped to the table; one-sample images by the brightness difference,
// where brightness is the spatial weight plus the sample (the per-pixel code
// starts its sum from the copied weight, and dividing by one sample changes
// nothing).
template <int SPP, bool PACKED>
HWY_INLINE void RangeWeights(const Pass &p, const KernelPlan &k, size_t base, size_t nv,
                             const unsigned char *need, const int32_t *idx, const Scratch &s) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const size_t B = (size_t)p.block;
    const float *expLut = p.args->expLut;
    float *HWY_RESTRICT w = s.weights;
    float *HWY_RESTRICT sums = s.sums;
    for (size_t x = 0; x < nv * N; x += N) hn::StoreU(hn::Zero(df), df, sums + x);
    const ptrdiff_t c = k.offset[k.centre];
    // Packed lanes gather their centre values once, into the free
    // convolution sums: per sample, centre[q * block + lane].
    float *HWY_RESTRICT centre = s.acc;
    if constexpr (SPP == 3) {
        const float *L = p.lab[0] + (base - p.origin);
        const float *A = p.lab[1] + (base - p.origin);
        const float *Bp = p.lab[2] + (base - p.origin);
        if constexpr (PACKED)
            for (size_t x = 0; x < nv * N; x += N) {
                hn::StoreU(LoadLab<true>(L, c, x, idx), df, centre + x);
                hn::StoreU(LoadLab<true>(A, c, x, idx), df, centre + B + x);
                hn::StoreU(LoadLab<true>(Bp, c, x, idx), df, centre + 2 * B + x);
            }
        const auto limit = hn::Set(df, 20000.0f);
        const auto lastEntry = hn::Set(df, 19999.0f);
        for (int e = 0; e < k.n; e++) {
            const ptrdiff_t o = k.offset[e];
            const auto spatial = hn::Set(df, k.factor[e]);
            for (size_t v = 0, x = 0; v < nv; v++, x += N) {
                if (need != nullptr && !need[v]) continue;
                hn::Vec<DF> dL, dA, dB;
                if constexpr (PACKED) {
                    dL = hn::Sub(LoadLab<true>(L, o, x, idx), hn::LoadU(df, centre + x));
                    dA = hn::Sub(LoadLab<true>(A, o, x, idx), hn::LoadU(df, centre + B + x));
                    dB = hn::Sub(LoadLab<true>(Bp, o, x, idx), hn::LoadU(df, centre + 2 * B + x));
                } else {
                    dL = hn::Sub(hn::LoadU(df, L + o + x), hn::LoadU(df, L + c + x));
                    dA = hn::Sub(hn::LoadU(df, A + o + x), hn::LoadU(df, A + c + x));
                    dB = hn::Sub(hn::LoadU(df, Bp + o + x), hn::LoadU(df, Bp + c + x));
                }
                // No fused multiply-add: each square is rounded, L and A first.
                auto dist = hn::Add(hn::Add(hn::Mul(dL, dL), hn::Mul(dA, dA)), hn::Mul(dB, dB));
                dist = hn::IfThenElse(hn::Ge(dist, limit), lastEntry, dist);
                const auto range = hn::GatherIndex(df, expLut, hn::ConvertTo(di, dist));
                const auto weight = hn::Mul(spatial, range);
                hn::StoreU(weight, df, w + e * B + x);
                hn::StoreU(hn::Add(hn::LoadU(df, sums + x), weight), df, sums + x);
            }
        }
    } else {
        const unsigned char *S = p.sample[0] + (base - p.origin);
        const auto centreSpatial = hn::Set(df, k.factor[k.centre]);
        if constexpr (PACKED)
            for (size_t x = 0; x < nv * N; x += N)
                hn::StoreU(ByteOf<0>(GatherBytes<1>(S, c, x, idx)), df, centre + x);
        for (int e = 0; e < k.n; e++) {
            const ptrdiff_t o = k.offset[e];
            const auto spatial = hn::Set(df, k.factor[e]);
            for (size_t v = 0, x = 0; v < nv; v++, x += N) {
                if (need != nullptr && !need[v]) continue;
                hn::Vec<DF> centreSample, sample;
                if constexpr (PACKED) {
                    centreSample = hn::LoadU(df, centre + x);
                    sample = ByteOf<0>(GatherBytes<1>(S, o, x, idx));
                } else {
                    centreSample = LoadSamples(S + c + x);
                    sample = LoadSamples(S + o + x);
                }
                const auto centreBright = hn::Add(centreSpatial, centreSample);
                const auto bright = hn::Add(spatial, sample);
                const auto index = hn::ConvertTo(di, hn::Abs(hn::Sub(bright, centreBright)));
                const auto weight = hn::Mul(spatial, hn::GatherIndex(df, expLut, index));
                hn::StoreU(weight, df, w + e * B + x);
                hn::StoreU(hn::Add(hn::LoadU(df, sums + x), weight), df, sums + x);
            }
        }
    }
}

// Convolution of the block's windows, per sample a single-precision sum in
// entry order, truncated to int into result[sample * block + pixel]. When
// gauss is set the weights are the kernel's own; otherwise they are the
// range weights, divided by their sum wherever the truncated sum is non-zero
// (the per-pixel test |(int)sum| > 1e-5, i.e. |sum| >= 1).
template <int SPP, bool PACKED>
HWY_INLINE void Convolve(const Pass &p, const KernelPlan &k, size_t base, size_t nv,
                         const unsigned char *need, const int32_t *idx, bool gauss,
                         const Scratch &s, int32_t *HWY_RESTRICT result) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const size_t B = (size_t)p.block;
    const float *HWY_RESTRICT w = s.weights;
    const float *HWY_RESTRICT sums = s.sums;
    float *HWY_RESTRICT acc = s.acc;
    const auto one = hn::Set(df, 1.0f);
    for (size_t x = 0; x < SPP * B; x += N) hn::StoreU(hn::Zero(df), df, acc + x);
    const unsigned char *S0 = p.sample[0] + (base - p.origin);
    const unsigned char *S1 = p.sample[SPP == 3 ? 1 : 0] + (base - p.origin);
    const unsigned char *S2 = p.sample[SPP == 3 ? 2 : 0] + (base - p.origin);
    // Packed colour lanes read all three samples with one gather from the
    // interleaved bordered copy, whose pixel k is plane index k.
    const unsigned char *rgb = p.args->img->image + base * SPP;
    for (int e = 0; e < k.n; e++) {
        const ptrdiff_t o = k.offset[e];
        const auto spatial = hn::Set(df, k.factor[e]);
        for (size_t v = 0, x = 0; v < nv; v++, x += N) {
            if (need != nullptr && !need[v]) continue;
            auto weight = spatial;
            if (!gauss) {
                const auto sum = hn::LoadU(df, sums + x);
                weight = hn::LoadU(df, w + e * B + x);
                weight = hn::IfThenElse(hn::Ge(hn::Abs(sum), one), hn::Div(weight, sum), weight);
            }
            hn::Vec<DF> s0, s1, s2;
            if constexpr (PACKED) {
                const auto word = GatherBytes<SPP>(rgb, o, x, idx);
                s0 = ByteOf<0>(word);
                if constexpr (SPP == 3) {
                    s1 = ByteOf<1>(word);
                    s2 = ByteOf<2>(word);
                }
            } else {
                s0 = LoadSamples(S0 + o + x);
                if constexpr (SPP == 3) {
                    s1 = LoadSamples(S1 + o + x);
                    s2 = LoadSamples(S2 + o + x);
                }
            }
            hn::StoreU(hn::Add(hn::LoadU(df, acc + x), hn::Mul(s0, weight)), df, acc + x);
            if constexpr (SPP == 3) {
                hn::StoreU(hn::Add(hn::LoadU(df, acc + B + x), hn::Mul(s1, weight)), df,
                           acc + B + x);
                hn::StoreU(hn::Add(hn::LoadU(df, acc + 2 * B + x), hn::Mul(s2, weight)), df,
                           acc + 2 * B + x);
            }
        }
    }
    for (int q = 0; q < SPP; q++)
        for (size_t x = 0; x < nv * N; x += N)
            hn::StoreU(hn::ConvertTo(di, hn::LoadU(df, acc + q * B + x)), di, result + q * B + x);
}

// A packed lane costs about two contiguous ones (its plane reads are
// gathers; measured on AVX-512 with the highlight pass's bright maps): a
// vector runs the fine kernel on all its lanes only when at least three
// quarters of them need it, and otherwise sends them to the packed sweep.
inline bool fineOnAllLanes(size_t fine, size_t lanes) { return 4 * fine >= 3 * lanes; }

template <int SPP>
void FilterRowSpp(const Pass &p, int j, const Scratch &s) {
    const LevelPassArgs &a = *p.args;
    const size_t N = hn::Lanes(DF());
    const int B = p.block;
    unsigned char *outRow = a.imgOutput + (size_t)j * a.rowStride;
    const size_t rowBase = (size_t)j * p.width;
    const int covered = a.iMax / (int)N * (int)N;  // pixels in whole vectors
    unsigned char *needNormal = s.need;
    unsigned char *needFine = s.need + B / N;
    size_t packed = 0;  // the row's fine pixels left to the packed sweep
    for (int i0 = 0; i0 < covered; i0 += B) {
        const int count = std::min(B, covered - i0);
        const size_t nv = (size_t)count / N;
        const size_t base = rowBase + (size_t)i0;
        unsigned char *out = outRow + (size_t)i0 * SPP;
        bool anyNormal = true;
        bool anyFine = false;
        if (a.levelGaussOnly) {
            Convolve<SPP, false>(p, p.normal, base, nv, nullptr, nullptr, true, s,
                                 s.resultNormal);
        } else {
            if (p.useMap) {
                const unsigned char *bright = a.brightImage + (size_t)j * a.iMax + i0;
                anyNormal = false;
                for (size_t v = 0; v < nv; v++) {
                    needNormal[v] = 0;
                    size_t fine = 0;
                    for (size_t lane = v * N; lane < (v + 1) * N; lane++) {
                        s.choice[lane] = choiceOf(bright[lane], i0 + (int)lane, j);
                        needNormal[v] |= s.choice[lane] == CHOOSE_NORMAL;
                        fine += s.choice[lane] == CHOOSE_FINE;
                    }
                    // Sparse fine pixels (the anti-diagonals) go to the
                    // packed sweep instead of costing the wide kernel on
                    // every lane of their vector.
                    needFine[v] = fineOnAllLanes(fine, N);
                    if (fine != 0 && !needFine[v])
                        for (size_t lane = v * N; lane < (v + 1) * N; lane++)
                            if (s.choice[lane] == CHOOSE_FINE) {
                                s.choice[lane] = CHOOSE_PACKED;
                                s.packed[packed++] = i0 + (int32_t)lane;
                            }
                    anyNormal |= needNormal[v] != 0;
                    anyFine |= needFine[v] != 0;
                }
            }
            if (anyNormal) {
                const unsigned char *need = p.useMap ? needNormal : nullptr;
                RangeWeights<SPP, false>(p, p.normal, base, nv, need, nullptr, s);
                Convolve<SPP, false>(p, p.normal, base, nv, need, nullptr, false, s,
                                     s.resultNormal);
            }
            if (anyFine) {
                RangeWeights<SPP, false>(p, p.fine, base, nv, needFine, nullptr, s);
                Convolve<SPP, false>(p, p.fine, base, nv, needFine, nullptr, false, s,
                                     s.resultFine);
            }
        }
        for (int px = 0; px < count; px++) {
            const unsigned char choice = p.useMap ? s.choice[px] : CHOOSE_NORMAL;
            unsigned char *o = out + (size_t)px * SPP;
            if (choice == CHOOSE_PACKED) continue;
            if (choice == CHOOSE_COPY) {
                // The per-pixel code's copy: window origin moved by the
                // larger half kernel in both directions.
                const unsigned char *self =
                    a.img->image + (size_t)(j + a.largestHalfKernelSize) * a.extendedRowStride +
                    (size_t)(i0 + px + a.largestHalfKernelSize) * SPP;
                std::memcpy(o, self, SPP);
                continue;
            }
            // Low 8 bits of the truncated sum, no clamping, as the per-pixel
            // store does (a white area whose weights sum above 1 wraps).
            const int32_t *result = choice == CHOOSE_FINE ? s.resultFine : s.resultNormal;
            for (int q = 0; q < SPP; q++) o[q] = (unsigned char)result[q * B + px];
        }
    }
    // The packed sweep, a block at a time; the last vector repeats its last
    // pixel. Lane x stands for column packed[x] of the row.
    if (packed != 0)
        for (size_t x = packed; x % N != 0; x++) s.packed[x] = s.packed[packed - 1];
    for (size_t first = 0; first < packed; first += (size_t)B) {
        const size_t count = std::min((size_t)B, packed - first);
        const size_t np = (count + N - 1) / N;
        const int32_t *idx = s.packed + first;
        RangeWeights<SPP, true>(p, p.fine, rowBase, np, nullptr, idx, s);
        Convolve<SPP, true>(p, p.fine, rowBase, np, nullptr, idx, false, s, s.resultFine);
        for (size_t x = 0; x < count; x++)
            for (int q = 0; q < SPP; q++)
                outRow[(size_t)idx[x] * SPP + q] = (unsigned char)s.resultFine[q * B + x];
    }
    for (int i = covered; i < a.iMax; i++) plainPixel(p, i, j, s.kernel);
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

// Bytes of bilateral weights one block of pixels keeps: a block's plane
// reads stay in long runs while its weights stay in the second-level cache.
constexpr size_t BLOCK_WEIGHT_BYTES = 128 * 1024;

// Bytes of colour planes one band aims at, its shared rows included.
constexpr size_t BAND_PLANE_BYTES = 96u << 20;


int levelPassBandRows = 0;

const char *targetName() { return HWY_DYNAMIC_DISPATCH(TargetName)(); }

bool levelPass(int nbProc, const LevelPassArgs &a) {
    // Covered: 8-bit one- and three-sample images with their border built
    // in, guided by themselves. The debug dump of fusion2f stays with the
    // per-pixel code.
    if (a.bps != 8 || !a.imageHasBorder || !a.img->mainImageHasBorders || dbgTestImage)
        return false;
    if (a.spp != 1 && a.spp != 3) return false;
    if (a.filterImg != a.img || a.filterSpp != a.spp || a.filterBps != a.bps ||
        a.filterExtendedRowStride != a.extendedRowStride)
        return false;
    if (a.iMax <= 0 || a.jMax <= 0 || a.extendedRowStride % a.spp != 0) return false;
    const bool lab = !a.levelGaussOnly && a.spp == 3;
    if (lab && labLUT == nullptr) return false;
    const bool useMap = !a.levelGaussOnly && a.level != 1 && a.brightImage != nullptr;
    if (a.numKernelEntries < 1 || (useMap && a.numFineKernelEntries < 1)) return false;

    // Choose the instruction set first: the lane count and the row function
    // must come from the same one.
    const size_t N = HWY_DYNAMIC_DISPATCH(FloatLanes)();
    const auto filterRow = HWY_DYNAMIC_DISPATCH(FilterRow);

    const size_t width = (size_t)(a.extendedRowStride / a.spp);
    // The copy's rows plus the two rows of slack createOutsideImageBorders
    // leaves after them.
    const int rows = a.jMax + 2 * a.img->borderWidth + 2;
    const int nNormal = a.numKernelEntries;
    const int nFine = useMap ? a.numFineKernelEntries : 0;
    const int nMax = std::max(std::max(nNormal, nFine), 1);
    const int team = std::max(nbProc, 1);
    const size_t kernelCapacity =
        (size_t)std::max(std::max(a.numKernelEntries, a.numFineKernelEntries), 1);
    // Pixels per block: as many whole vectors as keep one block's weights
    // within BLOCK_WEIGHT_BYTES, at most 64 vectors.
    const size_t vectors =
        std::clamp<size_t>(BLOCK_WEIGHT_BYTES / (nMax * N * sizeof(float)), 1, 64);
    const size_t block = vectors * N;
    // Per thread, each piece rounded up to 64 bytes: weights, sums,
    // convolution sums, two result blocks, choices, the two need lists and
    // a row of packed columns (padded to whole vectors).
    const auto round64 = [](size_t bytes) { return (bytes + 63) & ~(size_t)63; };
    const size_t pieces[8] = {round64(nMax * block * sizeof(float)),
                              round64(block * sizeof(float)),
                              round64(a.spp * block * sizeof(float)),
                              round64(a.spp * block * sizeof(int32_t)),
                              round64(a.spp * block * sizeof(int32_t)),
                              round64(block),
                              round64(2 * vectors),
                              round64(((size_t)a.iMax + N) * sizeof(int32_t))};
    size_t threadBytes = 0;
    for (size_t piece : pieces) threadBytes += piece;

    // Copy rows a band of output rows [j0, j1) reads through the planes:
    // [j0 - reachUp, j1 + reachDown), from the kernels' extreme entries (the
    // last vector of a row may run one row on).
    ptrdiff_t lowest = 0, highest = 0;
    for (int e = 0; e < nNormal + nFine; e++) {
        const KernelEntry &k = e < nNormal ? a.spatialKernel[e] : a.spatialKernelFine[e - nNormal];
        const ptrdiff_t o = (ptrdiff_t)k.ypos * (ptrdiff_t)width + k.xpos;
        lowest = std::min(lowest, o);
        highest = std::max(highest, o);
    }
    const int reachUp = (int)((-lowest + (ptrdiff_t)width - 1) / (ptrdiff_t)width);
    const int reachDown = (int)(highest / (ptrdiff_t)width) + 1;
    // One-sample copies are their own plane: a single band. Colour bands
    // keep their planes near BAND_PLANE_BYTES, but at least 64 output rows,
    // so the shared rows are not moved too often and the team has rows
    // enough to share.
    int bandRows = a.jMax;
    if (a.spp == 3) {
        const size_t pixelBytes = lab ? 3 + 3 * sizeof(float) : 3;
        const long fit = (long)(BAND_PLANE_BYTES / (width * pixelBytes)) - reachUp - reachDown;
        bandRows = levelPassBandRows > 0 ? levelPassBandRows
                                        : (int)std::max<long>(fit, std::max(64, 4 * team));
        bandRows = std::min(bandRows, a.jMax);
    }
    const int planeRows = std::min(rows, bandRows + reachUp + reachDown);
    const size_t planeSize = width * (size_t)planeRows;

    bool done = false;
    // A one-sample copy is its own sample plane; a colour copy is split
    // into three, plus L, A and B when its level is filtered.
    unsigned char *samples = nullptr;
    float *labPlanes = nullptr;
    if (a.spp == 3) samples = static_cast<unsigned char *>(allocate(planeSize * 3));
    if (lab) labPlanes = static_cast<float *>(allocate(planeSize * 3 * sizeof(float)));
    ptrdiff_t *offsets =
        static_cast<ptrdiff_t *>(allocate((size_t)(nNormal + nFine + 1) * sizeof(ptrdiff_t)));
    float *factors =
        static_cast<float *>(allocate((size_t)(nNormal + nFine + 1) * sizeof(float)));
    unsigned char *scratch = static_cast<unsigned char *>(allocate(threadBytes * team));
    KernelEntry *kernels =
        static_cast<KernelEntry *>(allocate(kernelCapacity * team * sizeof(KernelEntry)));
    if ((a.spp == 3 && samples == nullptr) || (lab && labPlanes == nullptr) || offsets == nullptr ||
        factors == nullptr || scratch == nullptr || kernels == nullptr)
        goto cleanup;

    {
        Pass p;
        p.args = &a;
        unsigned char *sample[3] = {a.img->image, nullptr, nullptr};
        float *labPlane[3] = {};
        for (int q = 0; q < 3 && a.spp == 3; q++) sample[q] = samples + planeSize * q;
        for (int q = 0; q < 3 && lab; q++) labPlane[q] = labPlanes + planeSize * q;
        for (int q = 0; q < 3; q++) {
            p.sample[q] = sample[q];
            p.lab[q] = labPlane[q];
        }
        p.width = width;
        p.origin = 0;
        p.useMap = useMap;
        p.block = (int)block;
        const auto plan = [&](KernelPlan &k, const KernelEntry *kernel, int n, int first) {
            for (int e = 0; e < n; e++) {
                offsets[first + e] = (ptrdiff_t)kernel[e].ypos * (ptrdiff_t)width + kernel[e].xpos;
                factors[first + e] = kernel[e].factor;
            }
            k = {offsets + first, factors + first, n, n / 2};
        };
        plan(p.normal, a.spatialKernel, nNormal, 0);
        plan(p.fine, a.spatialKernelFine, nFine, nNormal);

#pragma omp parallel num_threads(nbProc)
        {
            const int t = omp_get_thread_num();
            const int T = omp_get_num_threads();
            unsigned char *mine = scratch + threadBytes * t;
            unsigned char *piece[8];
            for (int q = 0; q < 8; q++) {
                piece[q] = mine;
                mine += pieces[q];
            }
            Scratch s;
            s.weights = reinterpret_cast<float *>(piece[0]);
            s.sums = reinterpret_cast<float *>(piece[1]);
            s.acc = reinterpret_cast<float *>(piece[2]);
            s.resultNormal = reinterpret_cast<int32_t *>(piece[3]);
            s.resultFine = reinterpret_cast<int32_t *>(piece[4]);
            s.choice = piece[5];
            s.need = piece[6];
            s.packed = reinterpret_cast<int32_t *>(piece[7]);
            s.kernel = kernels + kernelCapacity * t;
            Pass band = p;
            int top = 0, bottom = 0;  // copy rows the planes hold
            for (int j0 = 0; j0 < a.jMax; j0 += bandRows) {
                const int j1 = std::min(j0 + bandRows, a.jMax);
                if (a.spp == 3) {
                    const int lo = std::max(0, j0 - reachUp);
                    const int hi = std::min(rows, j1 + reachDown);
                    // Rows [lo, bottom) are held already, `shift` rows
                    // down; they move up in pieces no longer than the
                    // shift, so no piece overwrites rows still to move.
                    const int kept = std::max(0, bottom - lo);
                    const int shift = lo - top;
                    for (int c0 = 0; shift > 0 && c0 < kept; c0 += shift) {
                        int r0, r1;
                        staticBlock(std::min(shift, kept - c0), t, T, &r0, &r1);
                        moveRows(sample, labPlane, width, shift, c0 + r0, c0 + r1);
#pragma omp barrier
                    }
                    int r0, r1;
                    staticBlock(hi - lo - kept, t, T, &r0, &r1);
                    convertRows(a, sample, labPlane, width, lo, lo + kept + r0, lo + kept + r1);
                    top = lo;
                    bottom = hi;
                    band.origin = (size_t)lo * width;
#pragma omp barrier
                }
                // The loop's closing barrier keeps the planes until every
                // row of the band is done.
#pragma omp for schedule(dynamic, 1)
                for (int j = j0; j < j1; j++) filterRow(band, j, s);
            }
            // Every member calls the smoothing, which shares its rows among them.
            if (a.level > 0) smoothImage3x3(a.imgOutput, a.iMax, a.jMax, a.spp, a.bps, a.smoothImg);
#pragma omp barrier
        }
    }
    done = true;

cleanup:
    release(samples);
    release(labPlanes);
    release(offsets);
    release(factors);
    release(scratch);
    release(kernels);
    return done;
}

}  // namespace simd
}  // namespace lumora
#endif  // HWY_ONCE
