// The SIMD level pass's plan, run once per level whatever the instruction
// set: the level's layout (the planes, their ring of rows, the bands and
// every thread's scratch), the kernels addressed in the planes, and the
// loading of each band's planes in steps the team shares. The rows
// themselves are filled by the per-target kernels (level_pass_hwy.cpp).
//
// So that an entry of neighbouring pixels lies in neighbouring memory, the
// bordered working copy is split into planes: one plane of bytes per sample
// (a one-sample copy is its own plane) and, for filtered colour levels,
// float planes of every pixel's L, A and B from the CIELab table. Colour
// planes are a ring of rows, enough for the rows one band of output rows
// reads: copy row r lives in ring row r mod (ring rows), and the next band
// converts only the rows it adds, into the ring rows of rows no longer read,
// so nothing is moved. Whole-image planes would cost a quarter of a gigabyte
// on a 12 MP picture.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/switches.h"
#include "diag/diag.h"
#include "filter/filter.h"
#include "filter/level_pass_simd.h"
#include "tables/tables.h"

namespace lumora {
namespace simd {

// Vectors per block: the kernel choices, need lists and results of one
// block are worked out together.
constexpr size_t BLOCK_VECTORS = 64;

// Bytes of colour planes one band aims at, its shared rows included.
constexpr size_t BAND_PLANE_BYTES = 96u << 20;

int levelPassBandRows = 0;

// Sizes of one level's SIMD pass.
struct Layout {
    size_t lanes;        // floats per vector of the chosen instruction set
    size_t width;        // pixels per row of the bordered copy
    int rows;            // rows of the copy and the two rows of slack after it
    int nNormal, nFine;  // entries of the kernels in use (nFine 0 without the map)
    size_t vectors;      // vectors per block
    size_t pieces[SCRATCH_PIECES];  // bytes of each piece of a thread's scratch
    size_t threadBytes;  // bytes of a thread's scratch
    int reachUp, reachDown;  // copy rows above and below a band's output rows its kernels read
    int bandRows;        // output rows per band
    int ringRows;        // rows of the colour planes' ring, 0 when they hold the whole copy
    size_t planeSize;    // pixels per plane
    bool lab;            // CIELab planes: a filtered colour level
    bool records;        // and the records of packed lanes: one steered by the map
    bool useMap;         // the bright map steers the kernels
};

struct LevelPlan {
    const LevelPassArgs *args;
    Layout layout;
    Pass pass;
    unsigned char *sample[3];  // the planes, writable
    float *lab[3];
    unsigned char *samples;    // the blocks behind them
    float *labPlanes;
    float *records;
    ptrdiff_t *offsets;
    float *factors;
    unsigned char *scratch;    // every thread's Scratch pieces
    RowFunction filterRow;
};

namespace {

// Row r of the bordered colour copy into plane row `slot`. The two zero
// rows of slack after the copy are converted too: the per-pixel code can
// read them on small images, and it reads bytes 0, 0, 0 there, so the planes
// hold 0 and labLUT[0][0][0] (lab[0] null: a gauss-only level, no CIELab
// planes; record null: no records).
void convertRow(const LevelPassArgs &a, unsigned char *const *sample, float *const *lab,
                       float *record, size_t width, int r, int slot) {
    const unsigned char *q = a.img->image + (size_t)r * width * 3;
    for (size_t px = (size_t)slot * width; px < (size_t)(slot + 1) * width; px++, q += 3) {
        sample[0][px] = q[0];
        sample[1][px] = q[1];
        sample[2][px] = q[2];
        if (lab[0] != nullptr) {
            const LABData &v = labLUT[q[0]][q[1]][q[2]];
            lab[0][px] = v.l;
            lab[1][px] = v.a;
            lab[2][px] = v.b;
            if (record != nullptr) {
                float *rec = record + 4 * px;
                rec[0] = v.l;
                rec[1] = v.a;
                rec[2] = v.b;
                const unsigned char bytes[4] = {q[0], q[1], q[2], 0};
                std::memcpy(rec + 3, bytes, 4);
            }
        }
    }
}


// Covered: 8-bit one- and three-sample images with their border built in,
// guided by themselves. The debug dump of fusion2f stays with the per-pixel
// code.
bool covers(const LevelPassArgs &a) {
    if (a.bps != 8 || !a.imageHasBorder || !a.img->mainImageHasBorders || dbgTestImage)
        return false;
    if (a.spp != 1 && a.spp != 3) return false;
    if (a.filterImg != a.img || a.filterSpp != a.spp || a.filterBps != a.bps ||
        a.filterExtendedRowStride != a.extendedRowStride)
        return false;
    if (a.iMax <= 0 || a.jMax <= 0 || a.extendedRowStride % a.spp != 0) return false;
    if (!a.levelGaussOnly && a.spp == 3 && labLUT == nullptr) return false;
    const bool useMap = !a.levelGaussOnly && levelUsesBrightMap(a);
    return a.numKernelEntries >= 1 && (!useMap || a.numFineKernelEntries >= 1);
}

// Copy rows a band of output rows [j0, j1) reads through the planes:
// [j0 - reachUp, j1 + reachDown), from the kernels' extreme entries (the
// last vector of a row may run one row on).
void reachOf(const LevelPassArgs &a, Layout &l) {
    ptrdiff_t lowest = 0, highest = 0;
    const ptrdiff_t width = (ptrdiff_t)l.width;
    for (int e = 0; e < l.nNormal + l.nFine; e++) {
        const KernelEntry &k = e < l.nNormal ? a.spatialKernel[e] : a.spatialKernelFine[e - l.nNormal];
        const ptrdiff_t o = (ptrdiff_t)k.ypos * width + k.xpos;
        lowest = std::min(lowest, o);
        highest = std::max(highest, o);
    }
    l.reachUp = (int)((-lowest + width - 1) / width);
    l.reachDown = (int)(highest / width) + 1;
}

// One-sample copies are their own plane: a single band. Colour bands keep
// their planes near BAND_PLANE_BYTES, but at least 64 output rows, so the
// shared rows are not moved too often and the team has rows enough to share.
int bandRowsOf(const LevelPassArgs &a, const Layout &l, int team) {
    if (a.spp != 3) return a.jMax;
    const size_t pixelBytes = 3 + (l.lab ? 3 * sizeof(float) : 0) + (l.records ? 16 : 0);
    const long fit = (long)(BAND_PLANE_BYTES / (l.width * pixelBytes)) - l.reachUp - l.reachDown;
    const int rows = levelPassBandRows > 0 ? levelPassBandRows
                                           : (int)std::max<long>(fit, std::max(64, 4 * team));
    return std::min(rows, a.jMax);
}

Layout layoutOf(const LevelPassArgs &a, int nbProc, size_t lanes, bool runs) {
    Layout l{};
    l.lanes = lanes;
    l.width = (size_t)(a.extendedRowStride / a.spp);
    l.rows = a.jMax + 2 * a.img->borderWidth + 2;
    l.lab = !a.levelGaussOnly && a.spp == 3;
    l.useMap = !a.levelGaussOnly && levelUsesBrightMap(a);
    l.records = l.lab && l.useMap;
    l.nNormal = a.numKernelEntries;
    l.nFine = l.useMap ? a.numFineKernelEntries : 0;
    const int nMax = std::max(std::max(l.nNormal, l.nFine), 1);
    l.vectors = BLOCK_VECTORS;
    const size_t block = l.vectors * lanes;
    // Per thread, each piece rounded up to 64 bytes: the weights of the
    // vectors filtered at once and a vector's stashed bytes, two result
    // blocks, choices, the two need lists, a row of packed columns (padded to
    // whole vectors) and the row's entry offsets.
    const auto round64 = [](size_t bytes) { return (bytes + 63) & ~(size_t)63; };
    const size_t run = runs ? (size_t)vectorsAtOnce(a.spp) : 1;
    const size_t sizes[SCRATCH_PIECES] = {nMax * run * lanes * sizeof(float),
                                          nMax * lanes * sizeof(int32_t),
                                          a.spp * block * sizeof(int32_t),
                                          a.spp * block * sizeof(int32_t),
                                          block * sizeof(KernelChoice),
                                          2 * l.vectors,
                                          ((size_t)a.iMax + lanes) * sizeof(int32_t),
                                          (size_t)(l.nNormal + l.nFine) * sizeof(ptrdiff_t)};
    for (int q = 0; q < SCRATCH_PIECES; q++) l.threadBytes += l.pieces[q] = round64(sizes[q]);
    reachOf(a, l);
    l.bandRows = bandRowsOf(a, l, std::max(nbProc, 1));
    const int held = l.bandRows + l.reachUp + l.reachDown;
    l.ringRows = a.spp == 3 && held < l.rows ? held : 0;
    l.planeSize = l.width * (size_t)(l.ringRows > 0 ? l.ringRows + 1 : l.rows);
    return l;
}

// The plan's blocks: a one-sample copy is its own sample plane; a colour
// copy is split into three, plus L, A and B when its level is filtered.
bool allocatePlanes(LevelPlan &p, int team) {
    const Layout &l = p.layout;
    const int spp = p.args->spp;
    if (spp == 3) p.samples = static_cast<unsigned char *>(allocate(l.planeSize * 3));
    if (l.lab) p.labPlanes = static_cast<float *>(allocate(l.planeSize * 3 * sizeof(float)));
    if (l.records) p.records = static_cast<float *>(allocate(l.planeSize * 4 * sizeof(float)));
    const size_t entries = (size_t)(l.nNormal + l.nFine + 1);
    p.offsets = static_cast<ptrdiff_t *>(allocate(entries * sizeof(ptrdiff_t)));
    p.factors = static_cast<float *>(allocate(entries * sizeof(float)));
    p.scratch = static_cast<unsigned char *>(allocate(l.threadBytes * team));
    if ((spp == 3 && p.samples == nullptr) || (l.lab && p.labPlanes == nullptr) ||
        (l.records && p.records == nullptr) ||
        p.offsets == nullptr || p.factors == nullptr || p.scratch == nullptr)
        return false;
    p.sample[0] = p.args->img->image;
    for (int q = 0; q < 3 && spp == 3; q++) p.sample[q] = p.samples + l.planeSize * q;
    for (int q = 0; q < 3 && l.lab; q++) p.lab[q] = p.labPlanes + l.planeSize * q;
    return true;
}

// The kernels addressed in the planes, and what every row reads.
void planPass(LevelPlan &p) {
    const LevelPassArgs &a = *p.args;
    const Layout &l = p.layout;
    const auto plan = [&](KernelPlan &k, const KernelEntry *kernel, int n, int first) {
        for (int e = 0; e < n; e++) {
            p.offsets[first + e] = (ptrdiff_t)kernel[e].ypos * (ptrdiff_t)l.width + kernel[e].xpos;
            p.factors[first + e] = kernel[e].factor;
        }
        k = {p.offsets + first, p.factors + first, n, n / 2};
    };
    Pass &pass = p.pass;
    pass.args = &a;
    for (int q = 0; q < 3; q++) {
        pass.sample[q] = p.sample[q];
        pass.lab[q] = p.lab[q];
    }
    pass.record = p.records;
    pass.width = l.width;
    pass.ringRows = l.ringRows;
    pass.useMap = l.useMap;
    pass.block = (int)(l.vectors * l.lanes);
    plan(pass.normal, a.spatialKernel, l.nNormal, 0);
    plan(pass.fine, a.spatialKernelFine, l.nFine, l.nNormal);
}

// The copy rows [lo, hi) the band from j0 reads through the planes.
void bandSpan(const LevelPlan &p, int j0, int *lo, int *hi) {
    const Layout &l = p.layout;
    const int j1 = std::min(j0 + l.bandRows, p.args->jMax);
    *lo = std::max(0, j0 - l.reachUp);
    *hi = std::min(l.rows, j1 + l.reachDown);
}

// Thread t's scratch, with its kernel buffer.
Scratch scratchOf(const LevelPlan &p, int t, KernelEntry *kernel) {
    unsigned char *piece[SCRATCH_PIECES];
    unsigned char *mine = p.scratch + p.layout.threadBytes * t;
    for (int q = 0; q < SCRATCH_PIECES; q++) {
        piece[q] = mine;
        mine += p.layout.pieces[q];
    }
    Scratch s;
    s.weights = reinterpret_cast<float *>(piece[0]);
    s.stash = reinterpret_cast<int32_t *>(piece[1]);
    s.resultNormal = reinterpret_cast<int32_t *>(piece[2]);
    s.resultFine = reinterpret_cast<int32_t *>(piece[3]);
    s.choice = reinterpret_cast<KernelChoice *>(piece[4]);
    s.need = piece[5];
    s.packed = reinterpret_cast<int32_t *>(piece[6]);
    s.rowOffset = reinterpret_cast<ptrdiff_t *>(piece[7]);
    s.kernel = kernel;
    return s;
}

}  // namespace

LevelPlan *planLevel(int nbProc, const LevelPassArgs &a) {
    if (!covers(a)) return nullptr;
    LevelPlan *p = static_cast<LevelPlan *>(allocateZeroed(1, sizeof(LevelPlan)));
    if (p == nullptr) return nullptr;
    p->args = &a;
    // Choose the instruction set first: the lane count and the row function
    // must come from the same one.
    size_t lanes = 0;
    bool runs = false;
    p->filterRow = rowFunction(&lanes, &runs);
    p->layout = layoutOf(a, nbProc, lanes, runs);
    if (!allocatePlanes(*p, std::max(nbProc, 1))) {
        releaseLevelPlan(p);
        return nullptr;
    }
    planPass(*p);
    return p;
}

void releaseLevelPlan(LevelPlan *p) {
    if (p == nullptr) return;
    release(p->samples);
    release(p->labPlanes);
    release(p->records);
    release(p->offsets);
    release(p->factors);
    release(p->scratch);
    release(p);
}

int bandRows(const LevelPlan &p) { return p.layout.bandRows; }

bool loadsBands(const LevelPlan &p) { return p.args->spp == 3; }

void loadBand(const LevelPlan &p, int j0, int t, int T) {
    const Layout &l = p.layout;
    int lo, hi, heldBefore = 0, r0, r1;
    bandSpan(p, j0, &lo, &hi);
    if (j0 > 0) bandSpan(p, j0 - l.bandRows, &r0, &heldBefore);
    const int first = std::max(lo, heldBefore);  // the rows the band adds
    staticBlock(hi - first, t, T, &r0, &r1);
    for (int r = first + r0; r < first + r1; r++) {
        const int slot = l.ringRows > 0 ? r % l.ringRows : r;
        convertRow(*p.args, p.sample, p.lab, p.records, l.width, r, slot);
        if (l.ringRows > 0 && slot == 0)
            convertRow(*p.args, p.sample, p.lab, p.records, l.width, r, l.ringRows);
    }
}

void filterRow(const LevelPlan &p, int j, int t, KernelEntry *bilateralKernel) {
    p.filterRow(p.pass, j, scratchOf(p, t, bilateralKernel));
}

}  // namespace simd
}  // namespace lumora
