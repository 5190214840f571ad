// SIMD reconstruction rows.
//
// As in the SIMD level pass, the lanes of a vector are neighbouring pixels,
// and every lane runs its pixel's arithmetic of the per-pixel code operation
// for operation (the same table look-ups, separate multiplies and adds in
// the same order, IEEE division, truncating conversions), so each pixel gets
// the per-pixel code's bytes. Where a lane would reach one of the per-pixel
// code's aborts, the pixels of that vector run through the per-pixel
// arithmetic in order instead, which aborts at the same pixel with the same
// words. Pixels that do not fill a vector, at the end of a row, take the
// per-pixel arithmetic too.
//
// A row at a time: first the weights of every level for the whole row (with
// the dark-image reduction in highlight-preserving mode), then the level
// blend of the three samples of every pixel, then the host's HSL round trip,
// one pixel at a time as the host interface demands, then the clamped
// stores. 256-entry tables take the place of per-sample and per-pixel work
// that depends on one byte-sized value alone: a detail byte's sharpened
// difference, and the dark-image reduction's two factors by luminance (the
// first a double exponential that the per-pixel code evaluates at every
// pixel and level).
//
// Compiled once per instruction set (Highway's foreach_target); the best one
// the processor supports is chosen at run time.

#include <cstddef>
#include <cstdint>

#include "blend/blend.h"
#include "diag/diag.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "blend/reconstruction_hwy.cpp"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "blend/blend-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace simd {
namespace HWY_NAMESPACE {
// N bytes as int lanes.
HWY_INLINE VI LoadBytes(const unsigned char *p) { return hn::PromoteTo(DI(), hn::LoadU(D8(), p)); }

// Highlight-preserving weights of the N pixels from x at every level (kMax
// 2); false, having stored nothing of some levels, when a lane reaches one
// of the per-pixel code's aborts.
HWY_INLINE bool HighlightVector(const ReconstructionArgs &a, const ReconTables &t,
                                const RowView &row, size_t x, float *w) {
    const DF df;
    const DI di;
    const VF one = hn::Set(df, 1.0f);
    const VF zero = hn::Zero(df);
    const VF inv = hn::Set(df, 255.0f);
    const int threshold = a.darkMergeThreshold;
    const VI luminance0 = Luminance(row.fused + 3 * x);
    const size_t iMax = (size_t)a.iMax;
    for (int lev = a.numLevels; lev >= 0; lev--) {
        const int base = (a.numLevels - lev) * 2;
        VF p0 = hn::Div(hn::ConvertTo(df, LoadBytes(row.poids[base] + x)), inv);
        VF p1 = hn::Div(hn::ConvertTo(df, LoadBytes(row.poids[base + 1] + x)), inv);
        const VI smoothLum0 = Luminance(row.smoothed[base] + 3 * x);
        const VI darkCutLum = Luminance(row.smoothed[base + 1] + 3 * x);
        VI darkMergeLum = smoothLum0;
        if (threshold >= 170) {
            darkMergeLum = luminance0;
        } else if (threshold >= 140) {
            const VF m = hn::Add(hn::Mul(hn::ConvertTo(df, smoothLum0), hn::Set(df, 1 - t.mergeF)),
                                 hn::Mul(hn::ConvertTo(df, luminance0), hn::Set(df, t.mergeF)));
            darkMergeLum = hn::ConvertTo(di, m);
        }
        const VF factor1 = hn::GatherIndex(df, t.factor1, darkMergeLum);
        const VF factor2 = hn::GatherIndex(df, t.factor2, darkCutLum);
        if (!hn::AllFalse(df, hn::And(hn::Eq(p0, zero), hn::Eq(p1, zero)))) return false;
        p1 = hn::Mul(p1, hn::IfThenElse(hn::Lt(factor1, factor2), factor1, factor2));
        p0 = hn::Div(p0, hn::Add(p0, p1));
        p1 = hn::Div(p1, hn::Add(p1, p0));
        if (!hn::AllTrue(df, hn::And(hn::Le(p0, one), hn::Le(p1, one)))) return false;
        hn::StoreU(p0, df, w + base * iMax + x);
        hn::StoreU(p1, df, w + (base + 1) * iMax + x);
    }
    return true;
}

// Weights of row j at every level into w[e * iMax + x].
void RowWeights(const ReconstructionArgs &a, const ReconTables &t, const RowView &row, int j,
                float *w) {
    const DF df;
    const size_t N = hn::Lanes(df);
    const size_t iMax = (size_t)a.iMax;
    size_t x = 0;
    if (a.fusionPreserveHighlights) {
        for (; x + N <= iMax; x += N)
            if (!HighlightVector(a, t, row, x, w))
                for (size_t q = x; q < x + N; q++) pixelWeights(a, row, (int)q, j, w + q, iMax);
    } else {
        // A byte over 255.0f never exceeds 1: nothing here can abort.
        const int entries = (a.numLevels + 1) * a.kMax;
        const VF inv = hn::Set(df, 255.0f);
        for (; x + N <= iMax; x += N)
            for (int e = 0; e < entries; e++)
                hn::StoreU(hn::Div(hn::ConvertTo(df, LoadBytes(row.poids[e] + x)), inv), df,
                           w + e * iMax + x);
    }
    for (; x < iMax; x++) pixelWeights(a, row, (int)x, j, w + x, iMax);
}

// Level blend of row j into acc[s * iMax + x]: per sample, from 0, entry by
// entry (levels from the base down, images in order).
void BlendRow(const ReconstructionArgs &a, const ReconTables &t, const RowView &row, int j,
              const float *w, float *acc) {
    const DF df;
    const size_t N = hn::Lanes(df);
    const size_t iMax = (size_t)a.iMax;
    const int entries = (a.numLevels + 1) * a.kMax;
    size_t x = 0;
    for (; x + N <= iMax; x += N) {
        VF r = hn::Zero(df), g = hn::Zero(df), b = hn::Zero(df);
        for (int e = 0; e < entries; e++) {
            const VF weight = hn::LoadU(df, w + e * iMax + x);
            VI r8, g8, b8;
            LoadPixels(row.images[e] + 3 * x, r8, g8, b8);
            VF vr, vg, vb;
            if (e < a.kMax) {
                vr = hn::ConvertTo(df, r8);
                vg = hn::ConvertTo(df, g8);
                vb = hn::ConvertTo(df, b8);
            } else {
                vr = hn::GatherIndex(df, t.detail, r8);
                vg = hn::GatherIndex(df, t.detail, g8);
                vb = hn::GatherIndex(df, t.detail, b8);
            }
            r = hn::Add(r, hn::Mul(vr, weight));
            g = hn::Add(g, hn::Mul(vg, weight));
            b = hn::Add(b, hn::Mul(vb, weight));
        }
        hn::StoreU(r, df, acc + x);
        hn::StoreU(g, df, acc + iMax + x);
        hn::StoreU(b, df, acc + 2 * iMax + x);
    }
    for (; x < iMax; x++) pixelBlend(a, t, row, w + x, iMax, (int)x, j, acc + x, iMax);
}

// n output samples from f, clamped and truncated; a vector holding
// not-a-number goes through the per-sample store, whose conversion of it the
// vector one does not share.
void StoreRow(const float *f, unsigned char *out, size_t n, int byteDepthOut) {
    const DF df;
    const DI di;
    const size_t N = hn::Lanes(df);
    const VF zero = hn::Zero(df);
    const VF top = hn::Set(df, byteDepthOut == 1 ? 255.0f : 65535.0f);
    size_t i = 0;
    for (; i + N <= n; i += N) {
        VF v = hn::LoadU(df, f + i);
        if (!hn::AllFalse(df, hn::Ne(v, v))) {
            for (size_t q = i; q < i + N; q++)
                storeReconstructedSample(f[q], out + q * byteDepthOut, byteDepthOut);
            continue;
        }
        if (byteDepthOut != 1) v = hn::Mul(v, hn::Set(df, 256.0f));
        v = hn::IfThenElse(hn::Lt(v, zero), zero, v);
        v = hn::IfThenElse(hn::Gt(v, top), top, v);
        const VI iv = hn::ConvertTo(di, v);  // 0..top: the demotions keep it whole
        if (byteDepthOut == 1) {
            hn::StoreU(hn::DemoteTo(D8(), iv), D8(), out + i);
        } else {
            const hn::Rebind<uint16_t, DF> d16;
            hn::StoreU(hn::DemoteTo(d16, iv), d16, reinterpret_cast<uint16_t *>(out) + i);
        }
    }
    for (; i < n; i++) storeReconstructedSample(f[i], out + i * byteDepthOut, byteDepthOut);
}

}  // namespace HWY_NAMESPACE
}  // namespace simd
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumora {
namespace simd {

HWY_EXPORT(RowWeights);
HWY_EXPORT(BlendRow);
HWY_EXPORT(StoreRow);


bool reconstructionCovers(const ReconstructionArgs &a) {
    return a.byteDepthBpsIn == 1 && a.bitDepthPoids == 8 && a.byteDepthPoids == 1 && a.spp == 3 &&
           a.max7 == 128 && a.kMax >= 1 && a.kMax <= 3 &&
           (!a.fusionPreserveHighlights || a.kMax == 2) &&
           (a.byteDepthBpsOut == 1 || a.byteDepthBpsOut == 2) && !dbgTestImage;
}

bool reconstructRows(const ReconstructionArgs &a, int rowBegin, int rowEnd) {
    if (rowBegin >= rowEnd) return true;
    const int entries = (a.numLevels + 1) * a.kMax;
    const size_t iMax = (size_t)a.iMax;
    // One block per call: the row pointers, then the weights of every entry
    // and the row's sums and samples.
    const size_t pointerBytes = 3 * (size_t)entries * sizeof(unsigned char *);
    const size_t floats = (size_t)entries * iMax + 6 * iMax;
    unsigned char *block = static_cast<unsigned char *>(allocate(pointerBytes + floats * sizeof(float)));
    if (block == nullptr) return false;
    ReconTables t;
    buildReconTables(a, &t);
    RowView row;
    row.images = reinterpret_cast<unsigned char **>(block);
    row.smoothed = row.images + entries;
    row.poids = row.smoothed + entries;
    float *w = reinterpret_cast<float *>(block + pointerBytes);
    float *acc = w + (size_t)entries * iMax;
    float *samples = acc + 3 * iMax;

    for (int j = rowBegin; j < rowEnd; j++) {
        startRowView(a, j, row);
        // Dispatched per row: a pointer kept from before the first dispatch
        // would be the chooser, which asks the processor again on every call.
        HWY_DYNAMIC_DISPATCH(RowWeights)(a, t, row, j, w);
        HWY_DYNAMIC_DISPATCH(BlendRow)(a, t, row, j, w, acc);
        for (size_t x = 0; x < iMax; x++) {
            float fvals[3] = {acc[x], acc[iMax + x], acc[2 * iMax + x]};
            finishPixel(a, fvals, samples + 3 * x);  // the host's HSL, one pixel at a time
        }
        unsigned char *out = a.resImage + (size_t)a.rowOut * j * a.byteDepthBpsOut;
        HWY_DYNAMIC_DISPATCH(StoreRow)(samples, out, 3 * iMax, a.byteDepthBpsOut);
    }
    release(block);
    return true;
}

}  // namespace simd
}  // namespace lumora
#endif  // HWY_ONCE
