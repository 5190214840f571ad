// Vectorised fill of the RGB-to-CIELab table: the same floats as
// Point_RGB_to_CIELab, with a bounded cube root in place of most of the
// general powers.
//
// Why the floats are the same:
//
// 1. The XYZ sums. Point_RGB_to_CIELab accumulates from zero in order,
//    ((0 + m[c][0]*r) + m[c][1]*g) + m[c][2]*b. Every product is +0 or
//    positive, and 0 + x == x for those, so X = Px(r, g) + Qx(b) with
//    Px = m00*r + m01*g and Qx = m02*b: the same roundings in the same order.
//    Likewise Y. The Z row has zeros for red and green, so Z = m22*b exactly
//    and f(Z) depends on b alone: 256 exact values. The two divisions of t
//    (by the white, then by 65535) and the linear branch are kept as written.
//
// 2. The cube root. Above ep the reference value is p = pow(t, c) with
//    c = 0.3333333333333333. CubeRoot() returns y with |y/t^(1/3) - 1| <=
//    6.1u (u = 2^-53, see there). pow is within 1 ulp (relative 2u), and
//    t^c / t^(1/3) = exp((c - 1/3) ln t) with c - 1/3 = -2^-54/3 and ln t in
//    (ln ep, 0] (t <= 65280/65535 times a row sum over its white, below 1),
//    a factor in [1, 1 + 0.81u]. So |y/p - 1| <= 8.9u + O(u^2) < 1e-15
//    (LAB_CUBE_ROOT_ERROR). With the much wider E = 1e-13, lo = y*(1 - E) and
//    hi = y*(1 + E), both rounded, still enclose p.
//
// 3. Monotonicity. IEEE operations and the rounding to float are monotone in
//    each argument, so L = (float)(116*fy - 16) is nondecreasing in fy,
//    A = (float)(500*(fx - fy)) nondecreasing in fx and nonincreasing in fy,
//    B = (float)(200*(fy - fz)) nondecreasing in fy. Evaluated at the interval
//    ends, each output brackets the reference float; where both ends give the
//    same float, that float is the reference. Otherwise (near greys, where A
//    and B are tiny, and at rare rounding ties) the entry is converted exactly
//    by Point_RGB_to_CIELab. The two ends are compared bit for bit.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "tables/cielab_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

#include "tables/tables.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Cube root of t in [2^-9, 1] (any lane outside gives a finite value that the
// caller discards).
//
// Exact factors of 8 bring t to s in [1/8, 1], scaled back by powers of 2.
// w approximates s^(-1/3) in [1, 2]. The guess 1.906 - 1.017 s has relative
// error e(s) = (1.906 - 1.017 s) s^(1/3) - 1, whose only extremum is a maximum
// at s = 1.906 / (4 * 1.017), where it is 0.1103; at the ends it is -0.1106
// and -0.1110: |e0| <= 0.112. Newton for s^(-1/3), w' = w + w (1 - s w^3) / 3,
// maps the error e to phi(e) = (1 + e)(4 - (1 + e)^3)/3 - 1
// = -2e^2 - 4e^3/3 - e^4/3, which is <= 0, and increasing below 0: after
// steps 1..5 the bounds are 0.0265, 1.4e-3, 3.9e-6, 3.0e-11, 1.8e-21.
// Rounding (u = 2^-53) adds a few u per step, swamped by these bounds except
// in the last step: there s w^3 carries at most 3u, 1 - s w^3 is exact
// (Sterbenz), the correction term (below 1e-10) adds a negligible error, the
// final add rounds once: |e5| <= 2.02u. y = (s w) w rounds twice more:
// |y/s^(1/3) - 1| <= 6.1u.
template <class D>
HWY_INLINE hn::Vec<D> CubeRoot(D d, hn::Vec<D> t) {
    const auto eighth = hn::Set(d, 0.125);
    auto s = t;
    auto scale = hn::Set(d, 1.0);
    for (int k = 0; k < 2; k++) {
        const auto small = hn::Lt(s, eighth);
        s = hn::IfThenElse(small, hn::Mul(s, hn::Set(d, 8.0)), s);
        scale = hn::IfThenElse(small, hn::Mul(scale, hn::Set(d, 0.5)), scale);
    }
    const auto one = hn::Set(d, 1.0);
    const auto third = hn::Set(d, 1.0 / 3.0);
    auto w = hn::Sub(hn::Set(d, 1.906), hn::Mul(hn::Set(d, 1.017), s));
    for (int k = 0; k < 5; k++) {
        const auto sw3 = hn::Mul(hn::Mul(hn::Mul(w, w), w), s);
        w = hn::Add(w, hn::Mul(hn::Mul(w, hn::Sub(one, sw3)), third));
    }
    return hn::Mul(hn::Mul(hn::Mul(s, w), w), scale);
}

void CubeRoots(const double *t, double *root, size_t n) {
    const hn::ScalableTag<double> d;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    for (; i + N <= n; i += N) hn::StoreU(CubeRoot(d, hn::LoadU(d, t + i)), d, root + i);
    if (i == n) return;
    double tail[64];
    for (size_t k = 0; k < N; k++) tail[k] = i + k < n ? t[i + k] : 1.0;
    hn::StoreU(CubeRoot(d, hn::LoadU(d, tail)), d, tail);
    for (size_t k = 0; i + k < n; k++) root[i + k] = tail[k];
}

// One component's f(t) as an interval [lo, hi] that holds the reference
// value; a single point on the linear branch.
template <class D>
HWY_INLINE void FInterval(D d, hn::Vec<D> t, hn::Vec<D> *lo, hn::Vec<D> *hi) {
    constexpr double E = 1e-13;
    const auto power = hn::Gt(t, hn::Set(d, ep));
    const auto root = CubeRoot(d, t);
    auto linear = root;
    if (!hn::AllTrue(d, power))
        linear = hn::Div(hn::Add(hn::Mul(hn::Set(d, ka), t), hn::Set(d, 16.0)), hn::Set(d, 116.0));
    *lo = hn::IfThenElse(power, hn::Mul(root, hn::Set(d, 1.0 - E)), linear);
    *hi = hn::IfThenElse(power, hn::Mul(root, hn::Set(d, 1.0 + E)), linear);
}

int FillLabBlock(int r, int g, const LabFillTables &tables, LABData *block) {
    static_assert(sizeof(LABData) == 3 * sizeof(float), "LABData is three packed floats");
    const hn::ScalableTag<double> d;
    const hn::Rebind<float, decltype(d)> df;
    const hn::RebindToUnsigned<decltype(df)> du;
    const size_t N = hn::Lanes(d);  // divides 256 on every target
    const double rr = (double)(r << 8), gg = (double)(g << 8);
    const auto px = hn::Set(d, rgb_xyz[0][0] * rr + rgb_xyz[0][1] * gg);
    const auto py = hn::Set(d, rgb_xyz[1][0] * rr + rgb_xyz[1][1] * gg);
    const auto whiteX = hn::Set(d, (double)d50_white[0]);
    const auto whiteY = hn::Set(d, (double)d50_white[1]);
    const auto scale = hn::Set(d, 65535.0);
    int fallbacks = 0;
    for (size_t b = 0; b < 256; b += N) {
        const auto tx = hn::Div(hn::Div(hn::Add(px, hn::LoadU(d, tables.qx + b)), whiteX), scale);
        const auto ty = hn::Div(hn::Div(hn::Add(py, hn::LoadU(d, tables.qy + b)), whiteY), scale);
        const auto fz = hn::LoadU(d, tables.fz + b);
        hn::Vec<decltype(d)> fxLo, fxHi, fyLo, fyHi;
        FInterval(d, tx, &fxLo, &fxHi);
        FInterval(d, ty, &fyLo, &fyHi);
        const auto c116 = hn::Set(d, 116.0), c16 = hn::Set(d, 16.0);
        const auto c500 = hn::Set(d, 500.0), c200 = hn::Set(d, 200.0);
        const auto lLo = hn::DemoteTo(df, hn::Sub(hn::Mul(c116, fyLo), c16));
        const auto lHi = hn::DemoteTo(df, hn::Sub(hn::Mul(c116, fyHi), c16));
        const auto aLo = hn::DemoteTo(df, hn::Mul(c500, hn::Sub(fxLo, fyHi)));
        const auto aHi = hn::DemoteTo(df, hn::Mul(c500, hn::Sub(fxHi, fyLo)));
        const auto bLo = hn::DemoteTo(df, hn::Mul(c200, hn::Sub(fyLo, fz)));
        const auto bHi = hn::DemoteTo(df, hn::Mul(c200, hn::Sub(fyHi, fz)));
        hn::StoreInterleaved3(lLo, aLo, bLo, df, reinterpret_cast<float *>(block + b));
        const auto same = hn::And(hn::And(hn::Eq(hn::BitCast(du, lLo), hn::BitCast(du, lHi)),
                                          hn::Eq(hn::BitCast(du, aLo), hn::BitCast(du, aHi))),
                                  hn::Eq(hn::BitCast(du, bLo), hn::BitCast(du, bHi)));
        if (hn::AllTrue(du, same)) continue;
        uint8_t bits[8] = {};
        hn::StoreMaskBits(du, same, bits);
        for (size_t k = 0; k < N; k++) {
            if (bits[k / 8] >> (k % 8) & 1) continue;
            LABData *entry = &block[b + k];
            Point_RGB_to_CIELab(r, g, (int)(b + k), &entry->l, &entry->a, &entry->b);
            fallbacks++;
        }
    }
    return fallbacks;
}

}  // namespace HWY_NAMESPACE
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumora {

HWY_EXPORT(CubeRoots);
HWY_EXPORT(FillLabBlock);

void makeLabFillTables(LabFillTables *tables) {
    for (int b = 0; b < 256; b++) {
        const double bb = (double)(b << 8);
        tables->qx[b] = rgb_xyz[0][2] * bb;
        tables->qy[b] = rgb_xyz[1][2] * bb;
        tables->fz[b] = f_cbrt(rgb_xyz[2][2] * bb / (double)d50_white[2]);
    }
}

int fillLabBlockSimd(int r, int g, const LabFillTables &tables, LABData *block) {
    return HWY_DYNAMIC_DISPATCH(FillLabBlock)(r, g, tables, block);
}

void labCubeRoots(const double *t, double *root, size_t n) {
    HWY_DYNAMIC_DISPATCH(CubeRoots)(t, root, n);
}

}  // namespace lumora
#endif
