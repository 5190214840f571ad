// Sparse spatial kernels: how far apart a level's grid points lie, how many
// entries its kernel has, and the jittered kernel itself.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tables/tables.h"
#include "diag/diag.h"

namespace lumora {

int proposedLevelFactorImplCalls = 0;

namespace {

// A window coordinate is on the grid when its distance from the centre is a
// multiple of the spacing and less than A spacings. A point is on the grid
// when both of its coordinates are, so the grid is one axis times itself:
// the scans below visit one axis (O(size)) instead of the whole window.
bool onAxis(int i, int offset, int levelFactor, int A) {
    const int d = std::abs(i - offset);
    return d % levelFactor == 0 && d / levelFactor < A;
}

int axisCount(int size, int levelFactor, int A) {
    int n = 0;
    for (int i = 0; i < size; i++) n += onAxis(i, size / 2, levelFactor, A);
    return n;
}

bool hasEvenRows(int numEntries) {
    return (int)std::sqrt((double)numEntries) % 2 == 0;
}

}  // namespace

float kernelRadius(float startingSigma, float sigmaMultiplier, int numLevels) {
    const float edgeVal = 0.1f;
    float finalSigma = startingSigma;
    for (int k = 0; k < numLevels; k++) finalSigma *= sigmaMultiplier;
    // The log is of the float 0.1, widened: ln(edgeVal) = -2.3025850780928847.
    return (float)std::sqrt(-finalSigma * std::log((double)edgeVal) * 0.5);
}

int fastSpatialKernelNumEntriesImpl(int size, float sigma, float power, int srcImgNo,
                                    int levelFactor, int *accuracyFactors) {
    const int n = axisCount(size, levelFactor, accuracyFactors[srcImgNo]);
    int count = n * n;
    // Room for the centre entry that the kernel builder inserts into a grid
    // with an even number of rows.
    if (hasEvenRows(count)) count++;
    return count;
}

float getProposedLevelFactorImpl(int size, float origLevelFactor, float estimatedLevelFactor,
                                 float sigma, float sigmaSqd, float power, float srcImgNo,
                                 int *accuracyFactors) {
    proposedLevelFactorImplCalls++;
    const int centreDistance = size / 2;
    const int numEntries = fastSpatialKernelNumEntriesImpl(
        size, sigma, power, (int)srcImgNo, (int)estimatedLevelFactor, accuracyFactors);
    const int maxDist = (int)(std::sqrt((double)numEntries) / 2.0 + 1.0);
    const float minFactor = (float)numEntries * 0.005f / 100.0f;
    int i;
    for (i = 0; i < centreDistance; i++) {
        const float dist = i / origLevelFactor;
        // Weight of the diagonal point (dist, dist).
        const float arg = -(2 * dist * dist) / sigmaSqd;
        const float factor = (float)std::exp((double)arg);
        if (factor < minFactor) break;
    }
    return (float)i / (float)maxDist;
}

float getProposedLevelFactor(int size, float origLevelFactor, float sigma, float sigmaSqd,
                             float power, float srcImgNo, int *accuracyFactors) {
    float oldPropLev = getProposedLevelFactorImpl(size, origLevelFactor, origLevelFactor, sigma,
                                                  sigmaSqd, power, srcImgNo, accuracyFactors);
    float propLev = oldPropLev;
    for (int round = 0; round < 10; round++) {
        if (oldPropLev < 1.0f) oldPropLev = 1.0f;
        propLev = getProposedLevelFactorImpl(size, origLevelFactor, oldPropLev, sigma, sigmaSqd,
                                             power, srcImgNo, accuracyFactors);
        if constexpr (debugSpatialKernel)
            std::fprintf(stderr, "------------------> STEP %d: propLev=%f  oldPropLev=%f\n",
                         round, propLev, oldPropLev);
        // Converged once the integer parts agree; fractions do not matter.
        if ((int)propLev == (int)oldPropLev) return propLev;
        oldPropLev = propLev;
    }
    return propLev;
}

int fastSpatialKernelNumEntries(int size, float sigma, float power, int srcImgNo,
                                int *accuracyFactors) {
    int levelFactor = (int)std::pow((double)power, srcImgNo + 0.8);
    if (levelFactor <= 0) levelFactor = 1;
    const float proposed = getProposedLevelFactor(size, (float)levelFactor, sigma, sigma * sigma,
                                                  power, (float)srcImgNo, accuracyFactors);
    // The spacing may shrink, never grow.
    if ((float)levelFactor > proposed) levelFactor = (int)proposed;
    if (levelFactor <= 0) levelFactor = 1;
    return fastSpatialKernelNumEntriesImpl(size, sigma, power, srcImgNo, levelFactor,
                                           accuracyFactors);
}

// The jittered grid points of the window [first, last] x [first, last],
// column-outer, row-inner, with their weights; returns how many there are.
// Two rand() calls per point while the jitter range is positive.
static int placeGridEntries(int first, int last, int offset, int levelFactor, int levelFactorDiv, int A,
                            int peturb, float sigmaSqd, KernelEntry *kernel) {
    const int xStart = first, yStart = first, xEnd = last, yEnd = last;
    int numEntries = 0;
    for (int i = first; i <= last; i++) {
        if (!onAxis(i, offset, levelFactor, A)) continue;
        for (int j = first; j <= last; j++) {
            if (!onAxis(j, offset, levelFactor, A)) continue;
            int xpos = i;
            int ypos = j;
            if (peturb > 0) {
                const int xrand = rand();
                const int yrand = rand();
                xpos += xrand % peturb - peturb / 2;
                ypos += yrand % peturb - peturb / 2;
            }
            if (xpos < xStart) xpos = xStart;
            if (xpos > xEnd) xpos = xEnd;
            if (ypos < yStart) ypos = yStart;
            if (ypos > yEnd) ypos = yEnd;
            float dx = (float)std::abs(xpos - offset);
            float dy = (float)std::abs(ypos - offset);
            // Deliberate: divided by the raw spacing, so when the search shrank
            // the factor the weights still fall off in units of the raw one.
            dx /= (float)levelFactorDiv;
            dy /= (float)levelFactorDiv;
            KernelEntry *kptr = &kernel[numEntries++];
            kptr->xpos = xpos;
            kptr->ypos = ypos;
            const float arg = -(dx * dx + dy * dy) / sigmaSqd;
            kptr->factor = (float)std::exp((double)arg);
        }
    }
    return numEntries;
}

void makeFastSpatialKernel(int size, float sigma, float power, int srcImgNo,
                           int *accuracyFactors, KernelEntry *kernel) {
    const float sigmaSqd = sigma * sigma;
    const int offset = size / 2;
    const int A = accuracyFactors[srcImgNo];

    // Kept unclamped, unlike the entry counter: callers choose a power whose
    // raw factor is at least 1.
    int levelFactor = (int)std::pow((double)power, srcImgNo + 0.8);
    const int levelFactorDiv = levelFactor;
    const float proposed = getProposedLevelFactor(size, (float)levelFactorDiv, sigma, sigmaSqd,
                                                  power, (float)srcImgNo, accuracyFactors);
    if ((float)levelFactor > proposed) levelFactor = (int)proposed;
    if (levelFactor <= 0) levelFactor = 1;
    if constexpr (debugSpatialKernel)
        std::fprintf(stderr, "PROPLEVELFACT=%f LEVFACT=%d\n", proposed, levelFactor);

    // Odd jitter range, so the offsets are centred on the grid point.
    int peturb = levelFactor - 2;
    if (peturb % 2 == 0) peturb++;

    // The first and last grid points met (column-outer, row-inner) bound the
    // jitter.
    int first = 0, last = size - 1;
    while (!onAxis(first, offset, levelFactor, A)) first++;
    while (!onAxis(last, offset, levelFactor, A)) last--;
    const int xStart = first, yStart = first, xEnd = last, yEnd = last;

    int numEntries = placeGridEntries(first, last, offset, levelFactor, levelFactorDiv, A, peturb,
                                      sigmaSqd, kernel);

    // The corners stay put whatever the jitter did; their weights do not
    // follow them.
    kernel[0].xpos = xStart;
    kernel[0].ypos = yStart;
    kernel[numEntries - 1].xpos = xEnd;
    kernel[numEntries - 1].ypos = yEnd;

    const int m = numEntries / 2;
    if (hasEvenRows(numEntries)) {
        if constexpr (debugSpatialKernel)
            std::fprintf(stderr, "####################Has even rows###################\n");
        // An even grid has no middle entry: open one. It keeps a copy of the
        // displaced entry's weight, which is not recomputed (kept as is).
        std::memmove(&kernel[m + 1], &kernel[m], m * sizeof(KernelEntry));
        numEntries++;
    }
    kernel[m].xpos = (kernel[0].xpos + kernel[numEntries - 1].xpos) / 2;
    kernel[m].ypos = (kernel[0].ypos + kernel[numEntries - 1].ypos) / 2;

    const int x0 = kernel[0].xpos;
    const int y0 = kernel[0].ypos;
    for (int k = 0; k < numEntries; k++) {
        KernelEntry *kptr = &kernel[k];
        kptr->xpos -= x0;
        kptr->ypos -= y0;
        BF_ASSERT(kptr->xpos >= 0 && kptr->ypos >= 0);
    }
    if constexpr (debugSpatialKernel)
        std::fprintf(stderr, "\n--> MADE %d Entries for level %d\n", numEntries, srcImgNo);
}

}  // namespace lumora
