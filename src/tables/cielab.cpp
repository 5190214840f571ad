// The process-wide RGB-to-CIELab table: one Lab triple for every 8-bit RGB
// triple, read by the colour-distance filter.
#include <omp.h>

#include <cmath>
#include <cstdlib>

#include "core/switches.h"
#include "tables/tables.h"

namespace lumora {

LABData ***labLUT = nullptr;
int labSimdFallbacks = 0;

// Linear RGB to XYZ; each row sums to the matching component of the white.
const double rgb_xyz[3][3] = {
    {0.7976748465, 0.1351917082, 0.0313534088},
    {0.2880402025, 0.7118741325, 0.0000856651},
    {0.0, 0.0, 0.8252114389},
};
const float d50_white[3] = {0.96422f, 1.0f, 0.82521f};
double ep = 216.0 / 24389.0;
double ka = 24389.0 / 27.0;
// Transposed pseudo-inverse of rgb_xyz, for the inverse direction; nothing
// reads it yet.
double xyz_rgb_2[3][3];

namespace {
// Released by CIELab_End; nothing allocates it.
LABData *lab = nullptr;

LABData ***allocateLabTable() {
    LABData ***table = (LABData ***)allocateZeroed(256, sizeof(LABData **));
    bool complete = table != nullptr;
    for (int r = 0; complete && r < 256; r++) {
        table[r] = (LABData **)allocateZeroed(256, sizeof(LABData *));
        complete = table[r] != nullptr;
        for (int g = 0; complete && g < 256; g++) {
            table[r][g] = (LABData *)allocateZeroed(256, sizeof(LABData));
            complete = table[r][g] != nullptr;
        }
    }
    if (complete) return table;
    for (int r = 0; table != nullptr && r < 256; r++) {
        for (int g = 0; table[r] != nullptr && g < 256; g++) release(table[r][g]);
        release(table[r]);
    }
    release(table);
    return nullptr;
}

}  // namespace

void CIELab_Init(int nbProc) {
    ep = 216.0 / 24389.0;
    ka = 24389.0 / 27.0;
    pseudoinverse(const_cast<double(*)[3]>(rgb_xyz), xyz_rgb_2, 3);
    make_CIELAB_lookup_table(nbProc);
}

void make_CIELAB_lookup_table(int nbProc) {
    // Allocated once per process and never freed: the table outlives every
    // call. A table that cannot be allocated in full is given back and
    // labLUT stays null, with nothing filled; the filters that read it then
    // fail as for any buffer of theirs that could not be allocated, and the
    // next call tries again.
    if (keepFilledLabTable && labLUT != nullptr) return;
    if (labLUT == nullptr) labLUT = allocateLabTable();
    if (labLUT == nullptr) return;
    // Deliberate: refilled in full on every call, with identical values. Each
    // thread owns a contiguous block of red planes.
    if (usePlainPath) {
#pragma omp parallel num_threads(nbProc)
        {
            int rBegin, rEnd;
            staticBlock(256, omp_get_thread_num(), omp_get_num_threads(), &rBegin, &rEnd);
            for (int r = rBegin; r < rEnd; r++)
                for (int g = 0; g < 256; g++)
                    for (int b = 0; b < 256; b++) {
                        LABData *entry = &labLUT[r][g][b];
                        Point_RGB_to_CIELab(r, g, b, &entry->l, &entry->a, &entry->b);
                    }
        }
        return;
    }
    // Same entries, a block of 256 blues at a time (cielab_hwy.cpp).
    LabFillTables tables;
    makeLabFillTables(&tables);
    int fallbacks = 0;
#pragma omp parallel num_threads(nbProc) reduction(+ : fallbacks)
    {
        int rBegin, rEnd;
        staticBlock(256, omp_get_thread_num(), omp_get_num_threads(), &rBegin, &rEnd);
        for (int r = rBegin; r < rEnd; r++)
            for (int g = 0; g < 256; g++) fallbacks += fillLabBlockSimd(r, g, tables, labLUT[r][g]);
    }
    labSimdFallbacks = fallbacks;
}

void Point_RGB_to_CIELab(int rR, int gG, int bB, float *L, float *A, float *B) {
    // Deliberate: 8-bit samples are shifted, not stretched, onto 0..65535,
    // so white lands at 65280/65535 of the reference white (L about 99.849).
    // The filter's distances are calibrated on this.
    const double rgb[3] = {(double)(rR << 8), (double)(gG << 8), (double)(bB << 8)};
    double xyz[3];
    for (int c = 0; c < 3; c++) {
        xyz[c] = 0.0;
        for (int k = 0; k < 3; k++) xyz[c] += rgb_xyz[c][k] * rgb[k];
    }
    for (int c = 0; c < 3; c++) xyz[c] = f_cbrt(xyz[c] / (double)d50_white[c]);
    *L = (float)(116.0 * xyz[1] - 16.0);
    *A = (float)(500.0 * (xyz[0] - xyz[1]));
    *B = (float)(200.0 * (xyz[1] - xyz[2]));
}

double f_cbrt(double r) {
    const double t = r / 65535.0;
    // A general power, not cbrt: the table's values depend on its rounding.
    if (t > ep) return std::pow(t, 0.3333333333333333);
    return (ka * t + 16.0) / 116.0;
}

void pseudoinverse(double in[][3], double out[][3], int size) {
    // Gauss-Jordan on the normal equations, without pivot search.
    double work[3][6];
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 6; j++) work[i][j] = (j == i + 3) ? 1.0 : 0.0;
        for (int j = 0; j < 3; j++)
            for (int k = 0; k < size; k++) work[i][j] += in[k][i] * in[k][j];
    }
    for (int i = 0; i < 3; i++) {
        const double pivot = work[i][i];
        for (int j = 0; j < 6; j++) work[i][j] /= pivot;
        for (int k = 0; k < 3; k++) {
            if (k == i) continue;
            const double num = work[k][i];
            for (int j = 0; j < 6; j++) work[k][j] -= work[i][j] * num;
        }
    }
    for (int i = 0; i < size; i++)
        for (int j = 0; j < 3; j++) {
            out[i][j] = 0.0;
            for (int k = 0; k < 3; k++) out[i][j] += in[i][k] * work[j][k + 3];
        }
}

void CIELab_End() {
    if (lab != nullptr) {
        release(lab);
        lab = nullptr;
    }
}

}  // namespace lumora
