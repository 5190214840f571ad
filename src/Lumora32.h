/* Lumora32.h: the host application's shared header.
 *
 * Declares what the host and its modules share: the options record, the
 * progress callback type and the platform functions that the host provides
 * (a JPEG writer and float HSL conversions). The default-host library
 * (liblumorafusion-host) implements the platform functions; a real host
 * brings its own. Compilable as C. */
#ifndef LUMORA32_H
#define LUMORA32_H

#include "LumoraExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Host options, passed by value. The fusion module reads nbProc only; the
 * other fields belong to the host and keep their order and types. */
typedef struct optim_param_struct {
    int nbProc;          /* worker threads for every parallel section */
    int readFromDisk;
    int methodType;
    const char *sourceFile;
    const char *tempFile0;
    const char *tempFile1;
    const char *tempFile2;
    const char *tempFile3;
    const char *tempFile4;
    const char *tempFile5;
} optim_param_struct;

/* Progress report: *cancel is 0 on entry; set it non-zero to ask the module
 * to stop. amount is the cumulative fraction of the work done, 0.0 to 1.0. */
typedef void (*ProgressCallback)(int *cancel, float amount);

/* Platform interfaces (implemented by the host). */

/* Writes an interleaved 8-bit RGB image as a JPEG file.
 *   name       file name
 *   quality    JPEG quality 1..100
 *   saveInfos  14 ints: [0] width, [1] height, [2] samples per pixel (3),
 *              [3] bits per sample (8), [4] and [5] resolution (dpi)
 *   rowBytes   bytes per row of pixels
 *   the next seven arguments are reserved and passed as zeros
 *   pixels     rows top to bottom, rowBytes apart
 * Returns 0 on success, -1 on failure. */
LUMORA_API int HXwritejpg(const char *name, int quality, int *saveInfos, int rowBytes,
                          int reserved1, int reserved2, void *reserved3, int reserved4,
                          void *reserved5, int reserved6, void *reserved7,
                          unsigned char *pixels);

/* Float RGB <-> HSL in the caller's sample units (0..255 for 8-bit data).
 * rgb and hsl hold three floats each; hsl[0] hue, hsl[1] saturation on
 * 0..1, hsl[2] lightness. Inputs may lie outside 0..255. */
LUMORA_API void frgb2hsl(const float *rgb, float *hsl);
LUMORA_API void fhsl2rgb(const float *hsl, float *rgb);

#ifdef __cplusplus
}
#endif

#endif /* LUMORA32_H */
