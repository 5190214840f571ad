/* BilateralFilter.h: public interface of the Lumora Fusion module.
 *
 * Exposure fusion of two or three 8-bit RGB exposures of one scene through a
 * two-level sparse bilateral filter pyramid. Compilable as C; every entry
 * point has C linkage and takes plain records. What a host must know:
 *
 * Images. iMax columns by jMax rows of spp interleaved samples, row by row
 *   without padding (row stride iMax * spp samples). Several images of one
 *   set lie one after the other, image k starting k * jMax * iMax * spp
 *   samples in. Inputs are 8-bit RGB (spp 3). The output has bpsOut 8 or 16
 *   bits per sample (16: native-endian words) and rowOut samples per row.
 *   Keep both sides at 32 pixels or more: below 26 the kernels lose their
 *   centre pixel and an assertion can end the process (lumora-fuse mirrors
 *   smaller pictures out to 32 and crops the result back).
 *
 * Results and completion. The fusion entry points return 2 * kMax (a count
 *   of internal buffers, not a status) whether the fusion completed, was
 *   cancelled or ran out of memory, and -1001 when highlight preservation is
 *   asked with kMax other than 2. The progress callback tells them apart: it
 *   is called between stages with *cancel set to 0 and the fraction done (0
 *   to 1); setting *cancel non-zero stops the fusion there and leaves
 *   resImage untouched. The last call, with 1.0, comes only when the fusion
 *   completed (a cancel request then comes too late). A null callback is
 *   allowed and never cancels.
 *
 * The end of the process. Assertions abort on bpsIn or bitDepthPoids other
 *   than 8 and on spp other than 3, and can abort on sides below 26 pixels
 *   and on parameters outside the safe ranges below.
 *
 * Standard error. Every fusion call writes a fixed commentary to stderr
 *   (the parameters, the level table, a banner and the kernel sizes of each
 *   filter run); the module has no switch for it.
 *
 * Threads. nbProc in the options record is the thread team of every
 *   parallel stage (below 1: one thread); the bytes do not depend on it. A
 *   host may call the fusion entry points from any thread, but the process
 *   runs one fusion at a time: a call waits until the running one has
 *   returned. The progress callback runs on the calling thread and must not
 *   call them. The host's frgb2hsl and fhsl2rgb (Lumora32.h) are called for
 *   every output pixel from the team's threads at once.
 *
 * Random numbers. Each fusion reseeds the C library's generator (srand(0))
 *   and draws from rand() on the calling thread to jitter its kernels. A host
 *   thread calling rand() or srand() during a fusion changes the jitter and
 *   so the result, and the host's own sequence is not kept across a fusion.
 *
 * Platform functions. liblumorafusion leaves HXwritejpg, frgb2hsl and
 *   fhsl2rgb (Lumora32.h) to the program that loads it: a host defines its
 *   own, or links liblumorafusion-host for the default ones. */
#ifndef BILATERALFILTER_H
#define BILATERALFILTER_H

#include "LumoraExport.h"
#include "Lumora32.h"
#include "Profiling.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of floats in a fusion parameter array, read once at the start of
 * a call; init_realistic_param writes the defaults. The safe ranges are
 * those lumora-fuse accepts.
 *  index  meaning                                     default  safe range
 *   0  strength: width of the well-exposedness         15      0 to 100 (a)
 *      weighting; 0 averages the exposures
 *   1  sharpness: detail boost (the module uses /5)     2      0 to 20
 *   2  saturation: factor 1 + 0.1 * value                0      above -10, to 10
 *   3  start radius: first-level kernel half size       3      1 to 20, whole
 *   4  radius growth: kernel reach from level to        5      above 0, to 50
 *      level, scaled by the picture size
 *   5  spatial sigma of the first level               0.2      0.01 to 10 (b)
 *   6  range sigma: how different two colours may    0.2      0.01 to 10 (b)
 *      be and still be smoothed together
 *   7  preserve highlights: truncated to an int,        1      0 or 1
 *      non-zero is on (0.9 is off)
 *   8  highlight influence: how far down from white    10      0 to 10
 *      the dark exposure takes over (10: the least)
 * (a) From about 420 the weights underflow and the process aborts; with
 *     highlight preservation on and an influence below 10, above 19 some
 *     pixels get no weight at all and the process aborts.
 * (b) 0 divides by zero: the process crashes or aborts. */
#define LUMORA_FUSION_PARAM_COUNT 9

/* Fuses kMax exposures of one scene into resImage.
 *   optimParam     only nbProc is read (threads; below 1: one)
 *   fusion2Param   the nine parameters above; not changed
 *   kMax           2 or 3 exposures; exactly 2 with highlight preservation
 *   iMax, jMax     size of the images handed in
 *   origImgSizeX/Y size of the whole picture of which they are a view; it
 *                  sets the kernels' reach (pass iMax, jMax for a whole one)
 *   rowOut         samples per row of resImage (at least iMax * spp)
 *   rgb2bgr        non-zero: red and blue swapped on output
 *   spp, bpsIn, bitDepthPoids   must be 3, 8 and 8 (the process aborts
 *                  otherwise); bpsOut is 8 or 16
 *   imagesBuffer   the kMax exposures, one after the other
 *   fusedResult    with highlight preservation (fusion2Param[7]): an earlier
 *                  fused image, and imagesBuffer holds the dark exposure
 *                  only; otherwise not read (may be NULL)
 *   hdrImage       optional one-sample iMax x jMax guide for the
 *                  highlight mask's blur; may be NULL
 *   resImage       jMax rows of rowOut samples; must not be NULL
 *   callback       progress and cancellation, may be NULL
 * Returns 2 * kMax, or -1001 (see the top of this file). */
LUMORA_API int hx_fusion2(optim_param_struct optimParam, float *fusion2Param, int kMax,
                          int iMax, int jMax, int origImgSizeX, int origImgSizeY,
                          int rowOut, int rgb2bgr, int spp, int bpsIn, int bpsOut,
                          int bitDepthPoids, unsigned char *fusedResult,
                          unsigned char *imagesBuffer, unsigned char *hdrImage,
                          unsigned char *resImage, ProgressCallback callback);

/* Second pass of a fusion: combines fusedResult (an earlier fused image)
 * with darkImage (the darkest exposure), both iMax x jMax, in the
 * highlight-preserving mode; the arguments are those of hx_fusion2 (the
 * whole picture is the given size). Stores 1.0 into realisticParam[7] (the
 * caller's array is changed) and returns 4. */
LUMORA_API int hx_combi_realistic(optim_param_struct optim_param, float *realisticParam,
                                  int iMax, int jMax, int rowOut, int rgb2bgr, int spp,
                                  int bpsIn, int bpsOut, int bitDepthPoids,
                                  unsigned char *fusedResult, unsigned char *darkImage,
                                  unsigned char *resImage, ProgressCallback callback);

/* The same for a magnified view (loupe) of part of a picture of
 * origImgSizeX by origImgSizeY pixels, filtered with that picture's reach. */
LUMORA_API int hx_combi_realistic_loupe(optim_param_struct optim_param, float *realisticParam,
                                        int iMax, int jMax, int origImgSizeX,
                                        int origImgSizeY, int rowOut, int rgb2bgr, int spp,
                                        int bpsIn, int bpsOut, int bitDepthPoids,
                                        unsigned char *fusedResult, unsigned char *darkImage,
                                        unsigned char *resImage, ProgressCallback callback);

/* Writes the nine default fusion parameters into realisticParam[0..8].
 * Its return value carries no meaning: ignore it. Safe from any thread. */
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
