// The 8-bit level pass on an OpenCL device, one work-item per output pixel.
// Every float operation is the one the CPU's per-pixel code does, in the
// same order: no contraction, no mad, no native or relaxed functions; the
// host builds with correctly rounded division, or defines
// LUMORA_DIVIDE_IN_DOUBLE where the device has doubles instead (a float
// quotient rounded from the double quotient is the correctly rounded one).
#pragma OPENCL FP_CONTRACT OFF
#ifdef LUMORA_DIVIDE_IN_DOUBLE
#pragma OPENCL EXTENSION cl_khr_fp64 : enable
#endif

#define EXP_LUT_ENTRIES 20000

float quotient(float a, float b) {
#ifdef LUMORA_DIVIDE_IN_DOUBLE
    return (float)((double)a / (double)b);
#else
    return a / b;
#endif
}

// The range weight of entry e: by the squared CIELab distance to the centre,
// clamped to the table's last entry, for colour; by the brightness
// difference (spatial weight plus sample, as the CPU code starts its sum
// from the weight) for one sample.
float rangeWeight(int spp, __global const float *lab, __global const uchar *img, int labAt,
                  int at, float3 centreLab, float centreBrightness, float spatial,
                  __global const float *lut) {
    if (spp == 3) {
        const float dL = lab[3 * labAt] - centreLab.x;
        const float dA = lab[3 * labAt + 1] - centreLab.y;
        const float dB = lab[3 * labAt + 2] - centreLab.z;
        float distSqd = dL * dL + dA * dA + dB * dB;
        if (distSqd >= (float)EXP_LUT_ENTRIES) distSqd = (float)(EXP_LUT_ENTRIES - 1);
        return lut[(int)distSqd];
    }
    const float brightness = spatial + (float)img[at];
    return lut[(int)fabs(brightness - centreBrightness)];
}

// Rows [j0, j0 + rows) of the level into out (the band's rows only).
// img: the bordered input from its row inputRow0 on (0: the whole input;
// j0: the rows the band's windows reach), ers samples a row, pixel (i, j)'s
// window top-left at (j - inputRow0) * ers + i * spp; lab: three floats per
// bordered pixel of the same rows (colour only); entries: (x, y) offsets of
// normal then fine kernel, factors beside them; period: per bright value, -1
// copy, 0 normal, p > 0 fine where (i + j) % p == 0; gaussOnly: the normal
// kernel's weights as they are.
__kernel void levelRows(__global const uchar *img, __global const float *lab, int ers, int spp,
                        int iMax, int j0, int rows, int inputRow0, __global const int2 *pos,
                        __global const float *factor, int numNormal, int numFine,
                        __global const float *lut, __global const uchar *map,
                        __constant int *period, int useMap, int gaussOnly, int copyOffset,
                        __global uchar *out, int perturb) {
    const int i = get_global_id(0);
    const int j = j0 + get_global_id(1);
    if (i >= iMax || j >= j0 + rows) return;
    const int labWidth = ers / spp;
    const int window = (j - inputRow0) * ers + i * spp;
    const int labWindow = (j - inputRow0) * labWidth + i;
    __global uchar *o = out + (j - j0) * iMax * spp + i * spp;

    int first = 0, n = numNormal;
    if (!gaussOnly) {
        const int p = period[useMap ? map[j * iMax + i] : 1];
        if (p < 0) {
            const int self = window + copyOffset * ers + copyOffset * spp;
            for (int s = 0; s < spp; s++) o[s] = (uchar)(img[self + s] + perturb);
            return;
        }
        if (p > 0 && (i + j) % p == 0) {
            first = numNormal;
            n = numFine;
        }
    }

    // The middle entry stands for the pixel itself.
    const int c = first + n / 2;
    float3 centreLab = (float3)(0.0f, 0.0f, 0.0f);
    float centreBrightness = 0.0f;
    if (!gaussOnly) {
        const int at = labWindow + pos[c].y * labWidth + pos[c].x;
        if (spp == 3)
            centreLab = (float3)(lab[3 * at], lab[3 * at + 1], lab[3 * at + 2]);
        else
            centreBrightness = factor[c] + (float)img[window + pos[c].y * ers + pos[c].x];
    }

    // The weights' sum in entry order; the weights are worked out again
    // below, to the same bits, rather than kept.
    float kernelSum = 0.0f;
    if (!gaussOnly)
        for (int e = first; e < first + n; e++) {
            const int labAt = labWindow + pos[e].y * labWidth + pos[e].x;
            const int at = window + pos[e].y * ers + pos[e].x * spp;
            kernelSum = kernelSum + factor[e] * rangeWeight(spp, lab, img, labAt, at, centreLab,
                                                            centreBrightness, factor[e], lut);
        }
    // A sum whose integer part is zero leaves the weights as they are.
    const bool normalise = !gaussOnly && (int)kernelSum != 0;

    float sum0 = 0.0f, sum1 = 0.0f, sum2 = 0.0f;
    for (int e = first; e < first + n; e++) {
        const int at = window + pos[e].y * ers + pos[e].x * spp;
        float w = factor[e];
        if (!gaussOnly) {
            const int labAt = labWindow + pos[e].y * labWidth + pos[e].x;
            w = w * rangeWeight(spp, lab, img, labAt, at, centreLab, centreBrightness, w, lut);
            if (normalise) w = quotient(w, kernelSum);
        }
        sum0 = sum0 + (float)img[at] * w;
        if (spp == 3) {
            sum1 = sum1 + (float)img[at + 1] * w;
            sum2 = sum2 + (float)img[at + 2] * w;
        }
    }
    // Truncated, low bits kept: no clamp, as on the CPU.
    o[0] = (uchar)((int)sum0 + perturb);
    if (spp == 3) {
        o[1] = (uchar)((int)sum1 + perturb);
        o[2] = (uchar)((int)sum2 + perturb);
    }
}
