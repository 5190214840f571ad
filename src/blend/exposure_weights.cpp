// Exposure weights: how well exposed each source pixel is, read from two
// 256-entry error coefficient tables.
#include <cmath>

#include "core/switches.h"
#include "blend/blend.h"

namespace lumora {

namespace {
// Luminance mix of red, green and blue.
const float rgbCoeff[3] = {0.2f, 0.7f, 0.1f};
}  // namespace

void buildErrorCoefficients(float invSigmaWeighting, float *coeffErreur,
                            float *coeffErreurPreserve) {
    for (int i = 0; i < 256; i++) {
        // A bell centred on sample 128 (i / 256 reaches 0.5 there, not at 127.5).
        float fval = i / 256.0f - 0.5f;
        coeffErreur[i] = (float)std::exp((double)(-std::fabs(fval * fval * invSigmaWeighting)));

        // Peaks at 0.85 * 256. Built on every call although nothing reads it:
        // the driver hands coeffErreur for both tables.
        fval = i / 256.0f;
        fval = (float)(fval - 0.85);
        const float fourth = fval * fval * fval * fval;
        coeffErreurPreserve[i] =
            (float)std::exp(15.0 * ((double)invSigmaWeighting * -(double)std::fabs(fourth)));
    }
}

void calculatePoids8Alt(int kMax, unsigned char **imagePtrs, int spp, int i, int j, int iMax,
                        int jMax, float *coeffErreur, float *coeffErreurLastImg,
                        int contrastColourWeight, float *poids) {
    // Kept: the tables are told apart by address, not by content.
    const int differentLastWeight = coeffErreur != coeffErreurLastImg ? 1 : 0;

    for (int k = 0; k < kMax; k++) {
        const bool lastImage = k == kMax - 1;
        const float *erreur = lastImage ? coeffErreurLastImg : coeffErreur;
        const unsigned char *pixel = imagePtrs[k];
        float fval = 0.0f;
        // Always three samples, whatever spp says.
        for (int s = 0; s < 3; s++) {
            int data = pixel[s];
            if (lastImage) {  // kept: a no-op clamp for bytes
                if (data < 0) data = 0;
                if (data > 255) data = 255;
            }
            fval += erreur[data] * rgbCoeff[s];
        }
        if (differentLastWeight && lastImage) fval *= 2.0f;
        poids[k] = fval;
    }

    float sum = 0.0f;
    for (int k = 0; k < kMax; k++) sum += poids[k];
    for (int k = 0; k < kMax; k++) poids[k] /= sum;

    // A zero sum leaves NaN weights, which fail here too.
    for (int k = 0; k < kMax; k++) BF_ASSERT(poids[k] <= 1.0f);
}

void calculatePoids16Alt(int kMax, unsigned short **imagePtrs, float *coeffErreur,
                         float *poids) {
    // Deliberately unlike the 8-bit weights: one look-up of the luminance, no
    // last-image table, no check; the caller keeps the luminance below 256.
    float sum = 0.0f;
    for (int k = 0; k < kMax; k++) {
        const unsigned short *pixel = imagePtrs[k];
        const float fval = 0.2f * pixel[0] + 0.7f * pixel[1] + 0.1f * pixel[2];
        poids[k] = coeffErreur[(int)fval];
        sum += coeffErreur[(int)fval];
    }
    for (int k = 0; k < kMax; k++) poids[k] /= sum;
}

void highlightShift(const unsigned char *fusedPixel, const unsigned char *darkPixel,
                    float *poidsLev) {
    const int luminance0 = (fusedPixel[0] + fusedPixel[1] + fusedPixel[2]) / 3;
    const int luminance1 = (darkPixel[0] + darkPixel[1] + darkPixel[2]) / 3;
    (void)luminance1;  // computed, not used
    if (luminance0 > 240) {
        const float factor = (luminance0 - 240) / 15.0f;
        poidsLev[1] += factor;
        // Deliberate: the second division sees the new poidsLev[0], so the
        // pair no longer adds up to 1.
        poidsLev[0] = poidsLev[0] / (poidsLev[0] + poidsLev[1]);
        poidsLev[1] = poidsLev[1] / (poidsLev[0] + poidsLev[1]);
    }
}

void rawWeightPixels(const RawWeightsArgs &p, size_t first, size_t n) {
    unsigned char *in[3];  // room for three images: kMax is at most 3
    float poidsLev[3];
    for (size_t q = first; q < first + n; q++) {
        for (int k = 0; k < p.kMax; k++) in[k] = p.in[k] + 3 * q;
        calculatePoids8Alt(p.kMax, in, 3, (int)(q % p.iMax), (int)(q / p.iMax), p.iMax, p.jMax,
                           p.coeffErreur, p.coeffErreurLastImg, 1, poidsLev);
        if (p.highlight) highlightShift(in[0], in[1], poidsLev);
        for (int k = 0; k < p.kMax; k++) p.out[k][q] = (unsigned char)(int)(poidsLev[k] * 255.0f);
    }
}

void rawWeights(const RawWeightsArgs &args) {
    if (usePlainPath)
        rawWeightPixels(args, 0, (size_t)args.iMax * args.jMax);
    else
        simd::rawWeights(args);
}

}  // namespace lumora
