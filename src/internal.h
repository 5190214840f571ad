// internal.h: what the module's files share and nothing else sees.
//
// Types, constants, the assertion macro and the module-private functions of
// the fusion module, in namespace lumora. The shared library exports none of
// this (hidden visibility and a version script); the tests link the static
// core and reach it through this header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "BilateralFilter.h"

// Always-on assertion, whatever NDEBUG says. The message names the module
// ("BilateralFilter") rather than the file the code lives in, so that a host
// sees one source name however the module is split into files.
#define BF_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : ::lumora::assertionFailed(#expr, __LINE__, __func__))
// Same, with the expression text spelled out where it must read as written in
// C (a null pointer test prints as "p != ((void *)0)").
#define BF_ASSERT_TEXT(expr, text) \
    ((expr) ? static_cast<void>(0) : ::lumora::assertionFailed(text, __LINE__, __func__))
// Same, reporting under a given function name: checks made by a helper on
// behalf of an entry point report as that entry point (the reconstruction's
// checks read as hx_fusion2's).
#define BF_ASSERT_IN(expr, function) \
    ((expr) ? static_cast<void>(0) : ::lumora::assertionFailed(#expr, __LINE__, function))

namespace lumora {

[[noreturn]] void assertionFailed(const char *expression, int line, const char *function);

// ---------------------------------------------------------------------------
// Allocation (allocation.cpp). Every buffer of the module comes from here and
// goes back through release, so that a test build (LUMORA_ALLOCATION_FAULTS)
// can fail any one allocation and count what is still held.

#ifdef LUMORA_ALLOCATION_FAULTS
void *allocate(size_t bytes);
void *allocateZeroed(size_t count, size_t size);
void release(void *block);

struct AllocationFaults {
    long failAt;        // the allocation (counted from 1 since the reset) that fails; 0: none
    long count;         // allocations asked for since the reset
    long live;          // blocks handed out and not yet released, since the reset
    size_t failedSize;  // bytes the failed allocation asked for
};
// Starts counting afresh; the failAt-th allocation from now on fails.
void resetAllocationFaults(long failAt);
AllocationFaults allocationFaults();
#else
inline void *allocate(size_t bytes) { return std::malloc(bytes); }
inline void *allocateZeroed(size_t count, size_t size) { return std::calloc(count, size); }
inline void release(void *block) { std::free(block); }
#endif

// ---------------------------------------------------------------------------
// Shared types

// One sample of a sparse kernel. Entries are stored column-outer, row-inner.
struct KernelEntry {
    int xpos;      // column offset from the kernel window's top-left corner
    int ypos;      // row offset, likewise
    float factor;  // weight
    float L;       // working space of the colour-distance filter
    float A;
    float B;
};

struct LABData {
    float l;
    float a;
    float b;
};

// An image with a mirrored outside border of borderWidth pixels, either
// built into a larger copy (mainImageHasBorders = 1) or kept in four separate
// buffers beside the caller's image (mainImageHasBorders = 0).
struct ImageWithBorder {
    unsigned char *inputImage = nullptr;  // caller's image, not owned
    unsigned char *image = nullptr;       // what readers use (see above)
    int borderWidth = 0;
    int mainImageHasBorders = 0;
    unsigned char *topBorder = nullptr;
    unsigned char *bottomBorder = nullptr;
    unsigned char *leftBorder = nullptr;
    unsigned char *rightBorder = nullptr;
};

// ---------------------------------------------------------------------------
// Constants

constexpr int SPATIAL_KERNEL_APPROX_DEFAULT = 6;  // ordinary kernels
constexpr int SPATIAL_KERNEL_APPROX_FINE = 13;    // fine kernels
// Defined for the record; nothing reads them.
inline constexpr int SPATIAL_KERNEL_APPROX_COEFF[2] = {6, 6};
inline constexpr int SPATIAL_KERNEL_APPROX_COEFF_FINE[2] = {12, 13};

// Entries of the range table; the colour-distance filter clamps its squared
// Lab distance just below this, so the two must stay equal.
constexpr int EXP_LUT_ENTRIES = 20000;
constexpr int LOG_LUT_ENTRIES = 65536;
constexpr int RGBE_EXP_LUT_ENTRIES = 256;

// ---------------------------------------------------------------------------
// Implementation switch

// The hot loops exist twice: the plain per-pixel code, which reads like the
// algorithm and is the reference, and a vectorised fast path that gives the
// same bytes. The fast path runs by default; tests and benchmarks set this to
// run the plain one. It is not a configuration: the library reads nothing but
// its arguments.
inline bool usePlainPath = false;
// Set by tests and fuzzers that fuse hundreds of times: a CIELab table that is
// filled already is not filled again (every refill writes the same values).
// The library itself never sets it.
inline bool keepFilledLabTable = false;

// ---------------------------------------------------------------------------
// Diagnostics (diagnostics.cpp)

// Compile-time trace switches. debugMain gates the commentary that every
// fusion call writes to stderr; the others gate traces that never print.
constexpr int debugMain = 1;
constexpr int debugFusion2a = 0;
constexpr int debugConvolution = 0;
constexpr int debugSpatialKernel = 0;

// Run-time switch for the debug image dumps. Nothing in the module sets it;
// tests may.
extern int dbgTestImage;
// Image index and level of the filter run in progress, for dump file names.
extern int __k;
extern int __level;

void saveTestImage8_3SamplesWithEdges(const char *name, int iMax, int jMax, ImageWithBorder *img);
void saveTestImage8_1SampleWithEdges(const char *name, int iMax, int jMax, ImageWithBorder *img);

// ---------------------------------------------------------------------------
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
// Calls of getProposedLevelFactorImpl since process start (test hook).
extern int proposedLevelFactorImplCalls;

// ---------------------------------------------------------------------------
// Bordered images (bordered_image.cpp) and 3x3 smoothing (smoothing.cpp)

int createOutsideImageBorders(int iMax, int jMax, int spp, int bps, ImageWithBorder *img);
void freeOutsideImageBorders(ImageWithBorder *img);
unsigned char *imageData(int iMax, int jMax, int spp, int bps, int rowStride,
                         ImageWithBorder *img, int x, int y);

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

// ---------------------------------------------------------------------------
// CIELab fast fill (cielab_fast.cpp)

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
int fillLabBlockFast(int r, int g, const LabFillTables &tables, LABData *block);
// The fill's cube root: for t in (ep, 1], within LAB_CUBE_ROOT_ERROR
// (relative) of pow(t, 0.3333333333333333).
void labCubeRoots(const double *t, double *root, size_t n);
constexpr double LAB_CUBE_ROOT_ERROR = 1e-15;
// Entries of the last fast fill that took the exact conversion.
extern int labFastFallbacks;

// ---------------------------------------------------------------------------
// Multi-level edge-preserving filter

// Colour-distance bilateral kernel of one pixel (bilateral_kernel.cpp).
void fusion2f(int iMax, int jMax, int sppx, int bps, int rowStride, ImageWithBorder *img,
              float *expLut, float *logLut, float *rgbeExpLut, int posX, int posY,
              int kernelSize, float sigma, int numKernelEntries, KernelEntry *spatialKernel,
              KernelEntry *kernel);

// Sparse convolution of one output pixel (convolution.cpp).
void convolveFastSimple8(unsigned char *inImgPtr, unsigned char *outImgPtr, int spp,
                         int rowStride, float *logLut, float *unLogLut, int numKernelEntries,
                         KernelEntry *bilateralKernel);
void convolveFastSimple16(unsigned short *inImgPtr, unsigned short *outImgPtr, int spp,
                          int rowStride, float *logLut, float *unLogLut, int numKernelEntries,
                          KernelEntry *bilateralKernel, int kernelSize);
void convolveFastIncludingEdges(ImageWithBorder *img, unsigned char *outImgPtr, int iMax,
                                int jMax, int spp, int bps, int rowStride, float *logLut,
                                int posX, int posY, int numKernelEntries,
                                KernelEntry *bilateralKernel, int kernelSize);

// Everything one level's parallel pass reads (level_pass.cpp).
struct LevelPassArgs {
    ImageWithBorder *img;
    ImageWithBorder *filterImg;
    int filterSpp;
    int filterBps;
    int filterRowStride;
    int filterExtendedRowStride;
    unsigned char *imgOutput;
    unsigned char *smoothImg;
    KernelEntry *spatialKernel;
    int numKernelEntries;
    KernelEntry *spatialKernelFine;
    int numFineKernelEntries;
    float *expLut;
    float *logLut;
    float *unLogLut;
    float *rgbeExpLut;
    unsigned char *brightImage;
    int spp;
    int bps;
    int byteDepth;
    int rowStride;
    int rowStrideBytes;
    int iMax;
    int jMax;
    int physicalKernelSize;
    int halfKernelSize;
    int kernelStep;
    int largestHalfKernelSize;
    int largestPhysicalKernelSize;
    int levelGaussOnly;
    int level;
    float rangeKernelSigma;
    int extendedRowStride;
    int imageHasBorder;
};
// 0, or -4 when a thread's kernel buffer could not be allocated (then no row
// is filtered).
int levelPass(int nbProc, const LevelPassArgs &args);

// Level pyramid (pyramid.cpp).
int fusion2a(int nbProc, int numLevels, float kernelSize, float kernelSizeMult,
             float sigmaSpatial, float sigmaRange, int gaussOnly, int iMax, int jMax,
             const int spp, int bps, unsigned char *inImage, const int crossSpp,
             const int crossBps, unsigned char *crossFilter, unsigned char *brightImage,
             int *accuracyFactorsIn, int *highAccuracyFactorsIn, unsigned char **outDiffTower,
             unsigned char **outImageTower, unsigned char *outImage);

// ---------------------------------------------------------------------------
// Fast path (fast_filter.cpp)

// The 8-bit level pass of an image with its border built in, vectorised
// across neighbouring pixels of a row, with the plain pass's bytes. Returns
// false, having written nothing, when it does not cover the case or cannot
// get its working memory; the caller then runs the plain pass.
bool fastLevelPass(int nbProc, const LevelPassArgs &args);
// One interior row j of the 8-bit 3x3 smoothing (rows j-1, j, j+1 in, row j
// out), with the plain row's bytes.
void smoothRow8Fast(const unsigned char *prev, const unsigned char *cur,
                    const unsigned char *next, unsigned char *out, int rowStride, int spp);
// The instruction set the fast path runs on ("AVX3", "AVX2", ...).
const char *fastPathTargetName();
// Output rows per band of colour planes; 0 chooses by size (tests force
// tiny bands).
extern int fastPassBandRows;

// ---------------------------------------------------------------------------
// Exposure weights (exposure_weights.cpp)

void buildErrorCoefficients(float invSigmaWeighting, float *coeffErreur,
                            float *coeffErreurPreserve);
void calculatePoids8Alt(int kMax, unsigned char **imagePtrs, int spp, int i, int j, int iMax,
                        int jMax, float *coeffErreur, float *coeffErreurLastImg,
                        int contrastColourWeight, float *poids);
void calculatePoids16Alt(int kMax, unsigned short **imagePtrs, float *coeffErreur,
                         float *poids);
// Shifts weight towards the dark image (index 1) where the fused image
// (index 0) is near white; highlight-preserving mode only.
void highlightShift(const unsigned char *fusedPixel, const unsigned char *darkPixel,
                    float *poidsLev);

// ---------------------------------------------------------------------------
// Reconstruction (reconstruction.cpp)

struct ReconstructionArgs {
    size_t rowIn;
    size_t imageStride;
    size_t poidsImageStride;
    unsigned char *resImage;
    unsigned char **outputImageTower;
    unsigned char **outputImageDiffTower;
    unsigned char *poidsBuffer;
    unsigned char *results;
    unsigned char *imagesBuffer;
    unsigned char *fusedResult;
    float *coeffErreur;
    float *sharpLUT;
    int numLevels;
    int byteDepthBpsIn;
    int byteDepthBpsOut;
    int max7;
    float sharpnessFactor;
    float satCoeff;
    int kMax;
    int jMax;
    int iMax;
    int spp;
    int bpsIn;
    int bitDepthPoids;
    int bpsOut;
    int byteDepthPoids;
    int rowOut;
    int fusionPreserveHighlights;
    int darkMergeThreshold;
    int rgb2bgr;
};
void reconstruct(int nbProc, const ReconstructionArgs &args);
// One reconstructed sample of 8-bit data stored at the output depth: clamped
// to 0..255 (8-bit output) or scaled by 256 and clamped to 0..65535 (16-bit),
// then truncated.
inline void storeReconstructedSample(float fval, unsigned char *out, int byteDepthOut) {
    if (byteDepthOut == 1) {
        if (fval < 0.0f) fval = 0.0f;
        if (fval > 255.0f) fval = 255.0f;
        *out = (unsigned char)(int)fval;
    } else {
        fval *= 256.0f;
        if (fval < 0.0f) fval = 0.0f;
        if (fval > 65535.0f) fval = 65535.0f;
        const unsigned short v = (unsigned short)(int)fval;
        std::memcpy(out, &v, sizeof v);
    }
}

// Row j's level entries (e = (numLevels - lev) * kMax + k): the samples added
// to the sum, the samples its weights are judged by, and its weight plane.
void reconstructionRowEntries(const ReconstructionArgs &args, int j, unsigned char **images,
                              unsigned char **smoothed, unsigned char **poids);

// ---------------------------------------------------------------------------
// Fast weights/reconstruction (fast_weights.cpp)

// The driver's raw weight loop over the iMax x jMax pixels of the kMax images
// in[k] (three samples a pixel): calculatePoids8Alt, the highlight shift when
// highlight is set, and the byte (int)(poids * 255.0f) into plane out[k];
// vectorised across pixels, with the per-pixel loop's bytes and aborts.
void rawWeightsFast(int kMax, int iMax, int jMax, unsigned char **in, unsigned char **out,
                    float *coeffErreur, float *coeffErreurLastImg, int highlight);
// Whether reconstructRowsFast covers these arguments (8-bit input and
// weights, three samples, at most three images, no debug dumps).
bool fastReconstructionCovers(const ReconstructionArgs &args);
// Output rows [rowBegin, rowEnd) of the reconstruction, vectorised across the
// pixels of a row, with the per-pixel code's bytes and aborts. False, with
// nothing written, when its row buffers cannot be allocated.
bool reconstructRowsFast(const ReconstructionArgs &args, int rowBegin, int rowEnd);

// ---------------------------------------------------------------------------
// Driver (driver.cpp)

// Forwards progress to the host; returns 0 when the host asked to cancel.
int progress(ProgressCallback cb, float amount);

// ---------------------------------------------------------------------------
// Helpers

// Contiguous block of n items for thread t of a team of T, as a static
// schedule without chunk size shares them: the first n mod T threads get one
// item more.
inline void staticBlock(int n, int t, int T, int *begin, int *end) {
    const int q = n / T;
    const int m = n % T;
    *begin = t < m ? t * (q + 1) : t * q + m;
    *end = *begin + (t < m ? q + 1 : q);
}

}  // namespace lumora
