// tables.h: sparse kernel sizing and building, the range/log/exponent tables
// and the process-wide RGB-to-CIELab table.
#pragma once

#include "core/core.h"

namespace lumora {

// Sparse kernels (kernels.cpp)

float kernelRadius(float startingSigma, float sigmaMultiplier, int numLevels);
int fastSpatialKernelNumEntries(int size, float sigma, float power, int srcImgNo,
                                int *accuracyFactors);
int fastSpatialKernelNumEntriesImpl(int size, float sigma, float power, int srcImgNo,
                                    int levelFactor, int *accuracyFactors);
float getProposedLevelFactorImpl(int size, float origLevelFactor, float estimatedLevelFactor,
                                 float sigma, float sigmaSqd, float power, float srcImgNo,
                                 int *accuracyFactors);
float getProposedLevelFactor(int size, float origLevelFactor, float sigma, float sigmaSqd,
                             float power, float srcImgNo, int *accuracyFactors);
void makeFastSpatialKernel(int size, float sigma, float power, int srcImgNo,
                           int *accuracyFactors, KernelEntry *kernel);


// ---------------------------------------------------------------------------
// Lookup tables (lookup_tables.cpp) and the CIELab table (cielab.cpp)

int fusion2luts(int maxVal);
void fusion2lut(float sigma, int maxVal, float *lut);
void makeLogLUT(float *lut);
void makeRgbeExpLut(float *lut);

extern LABData ***labLUT;
extern const double rgb_xyz[3][3];
extern const float d50_white[3];
extern double ep;
extern double ka;
extern double xyz_rgb_2[3][3];

void CIELab_Init(int nbProc);
void make_CIELAB_lookup_table(int nbProc);
void Point_RGB_to_CIELab(int rR, int gG, int bB, float *L, float *A, float *B);
double f_cbrt(double r);
void pseudoinverse(double in[][3], double out[][3], int size);
void CIELab_End();


// Vectorised CIELab fill (cielab_hwy.cpp)

// What the table's entries share along b: the b terms of the X and Y sums and
// f of Z, which depends on b alone.
struct LabFillTables {
    double qx[256];
    double qy[256];
    double fz[256];
};
void makeLabFillTables(LabFillTables *tables);
// Fills the 256 entries of labLUT[r][g] with the floats Point_RGB_to_CIELab
// gives; returns how many of them needed its exact conversion.
int fillLabBlockSimd(int r, int g, const LabFillTables &tables, LABData *block);
// The fill's cube root: for t in (ep, 1], within LAB_CUBE_ROOT_ERROR
// (relative) of pow(t, 0.3333333333333333).
void labCubeRoots(const double *t, double *root, size_t n);
constexpr double LAB_CUBE_ROOT_ERROR = 1e-15;

}  // namespace lumora
