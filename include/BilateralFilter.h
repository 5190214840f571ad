/* BilateralFilter.h: public interface of the Lumora Fusion module.
 *
 * Exposure fusion of two or three 8-bit RGB exposures of one scene through a
 * two-level sparse bilateral filter pyramid. Compilable as C; every entry
 * point has C linkage and takes plain records.
 *
 * Images are iMax columns by jMax rows of spp interleaved samples, stored row
 * by row without padding. Several images of one set lie one after the other.
 *
 * The module keeps a process-wide RGB-to-CIELab table and a few debug
 * counters: call one entry point at a time. Every fusion call writes a short
 * fixed commentary to the standard error stream. */
#ifndef BILATERALFILTER_H
#define BILATERALFILTER_H

#include "LumoraExport.h"
#include "Lumora32.h"
#include "Profiling.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of floats in a fusion parameter array. Indices:
 *   0 strength          well-exposedness width            default 15
 *   1 sharpness         detail boost                      default 2
 *   2 saturation        saturation change (1 + 0.1 * v)   default 0
 *   3 start radius      first-level kernel half size      default 3
 *   4 radius growth     kernel growth between levels      default 5
 *   5 spatial sigma     first-level spatial sigma         default 0.2
 *   6 range sigma       range (colour distance) sigma     default 0.2
 *   7 preserve highlights  truncated to int; non-zero = on  default 1
 *   8 highlight influence  0..10                          default 10 */
#define LUMORA_FUSION_PARAM_COUNT 9

/* Fuses kMax (2 or 3) exposures held one after the other in imagesBuffer
 * into resImage (bpsOut 8 or 16 bits per sample, rowOut samples per row).
 * bpsIn and bitDepthPoids must be 8 and spp 3 (the module aborts
 * otherwise). origImgSizeX/Y are the size of the whole picture of which the
 * images are a view (pass iMax, jMax for a whole picture). With highlight
 * preservation on (fusion2Param[7]), kMax must be 2: fusedResult is an
 * earlier fused image and imagesBuffer the dark exposure.
 *
 * Returns -1001 when highlight preservation is asked with kMax other than 2.
 * Otherwise returns 2 * kMax, whether the work completed, was cancelled
 * through the callback or ran out of memory: watch the callback, whose final
 * call with 1.0 is made only when the work completed. */
LUMORA_API int hx_fusion2(optim_param_struct optimParam, float *fusion2Param, int kMax,
                          int iMax, int jMax, int origImgSizeX, int origImgSizeY,
                          int rowOut, int rgb2bgr, int spp, int bpsIn, int bpsOut,
                          int bitDepthPoids, unsigned char *fusedResult,
                          unsigned char *imagesBuffer, unsigned char *hdrImage,
                          unsigned char *resImage, ProgressCallback callback);

/* Combines an earlier fused result with the dark exposure in the
 * highlight-preserving mode. Sets realisticParam[7] to 1.0 (the caller's
 * array is changed) and returns hx_fusion2's result (4). */
LUMORA_API int hx_combi_realistic(optim_param_struct optim_param, float *realisticParam,
                                  int iMax, int jMax, int rowOut, int rgb2bgr, int spp,
                                  int bpsIn, int bpsOut, int bitDepthPoids,
                                  unsigned char *fusedResult, unsigned char *darkImage,
                                  unsigned char *resImage, ProgressCallback callback);

/* The same for a magnified view (loupe) of part of a picture of
 * origImgSizeX by origImgSizeY pixels, filtered with that picture's radii. */
LUMORA_API int hx_combi_realistic_loupe(optim_param_struct optim_param, float *realisticParam,
                                        int iMax, int jMax, int origImgSizeX,
                                        int origImgSizeY, int rowOut, int rgb2bgr, int spp,
                                        int bpsIn, int bpsOut, int bitDepthPoids,
                                        unsigned char *fusedResult, unsigned char *darkImage,
                                        unsigned char *resImage, ProgressCallback callback);

/* Writes the nine default fusion parameters into realisticParam[0..8].
 * Its return value carries no meaning: ignore it. */
LUMORA_API int init_realistic_param(float *realisticParam);

/* 3x3 box smoothing of an 8-bit (bps 8) or 16-bit image into outImage.
 * Must be called by every member of a running OpenMP team (or by a single
 * thread as a team of one): the rows are shared among the callers. */
LUMORA_API void smoothImage3x3(unsigned char *inImage, int iMax, int jMax, int spp, int bps,
                               unsigned char *outImage);

/* Debug helpers: write an image as an 8-bit RGB JPEG through HXwritejpg;
 * dbgSaveTestImage does so only when the module's debug image switch is on
 * (it is off). */
LUMORA_API void saveTestImage(const char *name, int iMax, int jMax, int sppImg, int bpsImg,
                              unsigned char *img);
LUMORA_API void dbgSaveTestImage(const char *name, int iMax, int jMax, int sppImg, int bpsImg,
                                 unsigned char *img);

/* Profiling slots for the host, zero-initialised; the module never uses them. */
LUMORA_API extern float bil1, bil2, bil3, bil4, bil5;
LUMORA_API extern TimeInfo bilt1, bilt2, bilt3, bilt4, bilt5;

#ifdef __cplusplus
}
#endif

#endif /* BILATERALFILTER_H */
