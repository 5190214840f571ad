// diag.h: diagnostics: trace switches, the debug counters and the debug image dumps.
#pragma once

#include "core/core.h"

namespace lumora {

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

// Debug dumps of one pyramid level of image __k, written only when
// dbgTestImage is set: the level's input, its bordered working copy (with
// the input's CIELab view for 8-bit colour), and its output.
void dumpLevelInput(int iMax, int jMax, int spp, int bps, unsigned char *input);
void dumpLevelWorkingImage(int iMax, int jMax, int spp, int bps, ImageWithBorder *img, int level);
void dumpLevelOutput(int iMax, int jMax, int spp, int bps, unsigned char *output, int level);

}  // namespace lumora
