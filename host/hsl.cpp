// Default host HSL conversions in the caller's sample units.
//
// Model: the usual hexagonal HSL, computed in double and stored as float.
//   hsl[0] hue in degrees, 0 <= h < 360 (0 for greys);
//   hsl[1] saturation, 0..1 for colours whose samples lie in 0..255;
//   hsl[2] lightness L = (max + min) / 2, in sample units.
// The chroma C = max - min is stored as S = C / D(L), where
//   D(L) = max(255 - |2L - 255|, 1).
// D depends on the lightness only, so fhsl2rgb recovers C = S * D(L) exactly
// for every input, also for samples outside 0..255 (which reconstruction can
// produce, e.g. -20 or 300): the round trip is faithful for any finite
// colour. The floor of one sample keeps the division defined where the
// usual denominator reaches zero or goes negative (L <= 0.5 or L >= 254.5); it
// leaves S <= 1 for in-range colours, because there C <= D(L) still holds.
// Out-of-range colours can thus get S above 1; a caller that caps S at 1
// pulls them towards the grey of their lightness, hue kept.
//
// For a given hue and lightness the colour is affine in S:
//   rgb = L + S * D(L) * u(hue),
// so scaling S scales every sample's distance from the grey L by the same
// factor. S = 0 gives the grey; a negative S reflects the colour through its
// grey onto the complementary hue. Every result is finite for finite input.
#include <algorithm>
#include <cmath>

#include "Lumora32.h"

namespace {

constexpr double RANGE = 255.0;

double chromaScale(double lightness) {
    return std::max(RANGE - std::fabs(2.0 * lightness - RANGE), 1.0);
}

}  // namespace

extern "C" LUMORA_API void frgb2hsl(const float *rgb, float *hsl) {
    const double r = rgb[0];
    const double g = rgb[1];
    const double b = rgb[2];
    const double hi = std::max({r, g, b});
    const double lo = std::min({r, g, b});
    const double chroma = hi - lo;
    const double lightness = (hi + lo) / 2.0;
    double hue = 0.0;
    if (chroma > 0.0) {
        if (hi == r)
            hue = (g - b) / chroma;  // -1 .. 1
        else if (hi == g)
            hue = (b - r) / chroma + 2.0;
        else
            hue = (r - g) / chroma + 4.0;
        hue *= 60.0;
        if (hue < 0.0) hue += 360.0;
    }
    // Just below 360 can round up to 360 in float; that is hue 0.
    const float storedHue = static_cast<float>(hue);
    hsl[0] = storedHue < 360.0f ? storedHue : 0.0f;
    hsl[1] = static_cast<float>(chroma / chromaScale(lightness));
    hsl[2] = static_cast<float>(lightness);
}

extern "C" LUMORA_API void fhsl2rgb(const float *hsl, float *rgb) {
    const double lightness = hsl[2];
    const double chroma = hsl[1] * chromaScale(lightness);  // negative S: negative chroma
    double sector = std::fmod(static_cast<double>(hsl[0]) / 60.0, 6.0);
    if (sector < 0.0) sector += 6.0;
    // The middle sample's share of the chroma, rising and falling across the
    // six sectors.
    const double mid = chroma * (1.0 - std::fabs(std::fmod(sector, 2.0) - 1.0));
    double r = 0.0, g = 0.0, b = 0.0;
    switch (static_cast<int>(sector)) {
    case 0: r = chroma; g = mid; break;
    case 1: r = mid; g = chroma; break;
    case 2: g = chroma; b = mid; break;
    case 3: g = mid; b = chroma; break;
    case 4: r = mid; b = chroma; break;
    default: r = chroma; b = mid; break;
    }
    const double lo = lightness - chroma / 2.0;
    rgb[0] = static_cast<float>(r + lo);
    rgb[1] = static_cast<float>(g + lo);
    rgb[2] = static_cast<float>(b + lo);
}
