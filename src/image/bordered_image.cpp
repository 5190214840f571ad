// Images with a mirrored outside border, so that the filter can read up to
// borderWidth pixels beyond every edge without testing each read.
//
// Two layouts: a larger copy with the border built in (every sample in
// [-b, iMax+b) x [-b, jMax+b) is a plain address), or the caller's image with
// four separate border buffers reached through imageData.
//
// Formats: bps 8 and 16 hold spp interleaved samples per pixel. bps 32 is
// RGBE, four planes of one byte per pixel within each row; it is bordered
// plane by plane and spp does not enter its geometry.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "image/image.h"

namespace lumora {

namespace {

// Where one plane of the image and its border live. Pointers address the
// first sample of a row (x = 0 for the image, x = -b for top and bottom rows,
// x = -b / x = iMax for left and right pieces); strides count samples.
template <typename T>
struct PlaneView {
    const T *src;
    size_t srcStride;
    T *top;
    T *bottom;
    size_t borderStride;
    T *left;
    T *right;
    size_t sideStride;
};

template <typename T>
T clampSample(int v, int maxVal) {
    return static_cast<T>(std::clamp(v, 0, maxVal));
}

// Fills one plane's border. `extrapolate` selects the 16-bit rule 2E - M
// (E the edge sample, M the mirrored one) for the bottom rows and the side
// columns; otherwise every border sample is the mirrored one.
template <typename T>
void fillPlane(const PlaneView<T> &p, int iMax, int jMax, int spp, int b, int maxVal,
               bool extrapolate) {
    const T *lastRow = p.src + static_cast<size_t>(jMax - 1) * p.srcStride;
    // Top row y and bottom row jMax + (y + b) in one pass. Rows are shared
    // out when a team calls (every row is written by one member alone).
#pragma omp for schedule(static)
    for (int y = -b; y < 0; ++y) {
        const T *topMirror = p.src + static_cast<size_t>(-y) * p.srcStride;
        const int yBottom = jMax + y + b;
        const T *bottomMirror = p.src + static_cast<size_t>(2 * (jMax - 1) - yBottom) * p.srcStride;
        T *top = p.top + static_cast<size_t>(y + b) * p.borderStride;
        T *bottom = p.bottom + static_cast<size_t>(y + b) * p.borderStride;
        size_t pos = 0;
        for (int i = -b; i < iMax + b; ++i) {
            for (int s = 0; s < spp; ++s) {
                // Deliberate corner rule: the read position moves only across
                // pixels 0 .. iMax-2, so pixel iMax-1 and all corner pixels
                // repeat sample 0 of the edge pixel in every channel.
                *top++ = clampSample<T>(topMirror[pos], maxVal);
                // Kept: in 16 bits only the bottom rows extrapolate; the top
                // rows mirror.
                const int v = extrapolate ? 2 * lastRow[pos] - bottomMirror[pos] : bottomMirror[pos];
                *bottom++ = clampSample<T>(v, maxVal);
                if (i >= 0 && i < iMax - 1) ++pos;
            }
        }
    }
#pragma omp for schedule(static)
    for (int j = 0; j < jMax; ++j) {
        const T *row = p.src + static_cast<size_t>(j) * p.srcStride;
        T *left = p.left + static_cast<size_t>(j) * p.sideStride;
        T *right = p.right + static_cast<size_t>(j) * p.sideStride;
        for (int x = -b; x < 0; ++x) {
            for (int s = 0; s < spp; ++s) {
                const int m = row[-x * spp + s];
                *left++ = clampSample<T>(extrapolate ? 2 * row[s] - m : m, maxVal);
            }
        }
        const T *edge = row + (iMax - 1) * spp;
        for (int x = iMax; x < iMax + b; ++x) {
            // Mirror without repeating the edge: the first column is iMax-2.
            for (int s = 0; s < spp; ++s) {
                const int m = row[(2 * (iMax - 1) - x) * spp + s];
                *right++ = clampSample<T>(extrapolate ? 2 * edge[s] - m : m, maxVal);
            }
        }
    }
}

// Interleaved 8- and 16-bit images: one plane of spp samples per pixel. In
// the built-in layout everything lives in `image`, extendedRowStride apart.
template <typename T>
void fillInterleaved(T *image, const T *input, T *top, T *bottom, T *left, T *right,
                     bool builtIn, int iMax, int jMax, int spp, int b, size_t rowStride,
                     size_t extendedRowStride, int maxVal) {
    PlaneView<T> v;
    if (builtIn) {
        T *firstRow = image + static_cast<size_t>(b) * extendedRowStride;
        v = {firstRow + b * spp, extendedRowStride,
             image, image + static_cast<size_t>(jMax + b) * extendedRowStride, extendedRowStride,
             firstRow, firstRow + (iMax + b) * spp, extendedRowStride};
    } else {
        v = {input, rowStride, top, bottom, extendedRowStride,
             left, right, static_cast<size_t>(b) * spp};
    }
    fillPlane(v, iMax, jMax, spp, b, maxVal, sizeof(T) == 2);
}

// Sizes of one bordered image, in samples or bytes as named.
struct BorderGeometry {
    int iMax, jMax, spp, bps, b, byteDepth;
    bool rgbe;
    size_t rowStride, extendedRowStride, topBottomSize, leftRightSize;
};

BorderGeometry borderGeometry(int iMax, int jMax, int spp, int bps, int b) {
    BorderGeometry g;
    g.iMax = iMax, g.jMax = jMax, g.spp = spp, g.bps = bps, g.b = b;
    g.byteDepth = bps / 8;
    g.rgbe = bps == 32;
    g.rowStride = g.rgbe ? static_cast<size_t>(iMax) * 4 : static_cast<size_t>(iMax) * spp;
    g.extendedRowStride =
        g.rgbe ? static_cast<size_t>(iMax + 2 * b) * 4 : static_cast<size_t>(iMax + 2 * b) * spp;
    g.topBottomSize = static_cast<size_t>(iMax + 2 * b) * b * g.byteDepth * spp;
    g.leftRightSize = static_cast<size_t>(jMax) * b * g.byteDepth * spp;
    return g;
}

// The larger copy, its slack zeroed; false when it cannot be allocated.
bool allocateBuiltInCopy(const BorderGeometry &g, ImageWithBorder *img) {
    const int b = g.b;
    // RGBE strides already count bytes; the size is still multiplied by
    // byteDepth (4), which over-allocates a layout no caller uses.
    const size_t size = g.extendedRowStride * g.byteDepth * (g.jMax + 2 * b);
    // Two zero-filled rows of slack after the end: on small images whose
    // smaller side is even, the filter's kernel window can reach one row
    // or column past the border. The layout is unchanged; the slack only
    // keeps such reads inside memory this buffer owns, and deterministic.
    const size_t slack = 2 * g.extendedRowStride * g.byteDepth;
    img->image = static_cast<unsigned char *>(allocate(size + slack));
    if (!img->image) return false;
    const size_t used = g.rgbe ? g.extendedRowStride * (g.jMax + 2 * b) : size;
    std::memset(img->image + used, 0, size + slack - used);
    return true;
}

// The image rows into the middle of the larger copy, shared out when a team
// calls.
void copyRows(const BorderGeometry &g, ImageWithBorder *img) {
    const int b = g.b;
    const int rowBytes = g.rgbe ? 1 : g.byteDepth;
#pragma omp for schedule(static)
    for (int j = 0; j < g.jMax; ++j) {
        unsigned char *dst = img->image + (b + j) * g.extendedRowStride * rowBytes;
        const unsigned char *src = img->inputImage + j * g.rowStride * rowBytes;
        if (!g.rgbe) {
            std::memcpy(dst + static_cast<size_t>(b) * g.spp * g.byteDepth, src,
                        g.rowStride * g.byteDepth);
        } else {
            // Planar rows: each plane of iMax bytes goes b bytes into its
            // own plane of iMax + 2b bytes.
            for (int p = 0; p < 4; ++p)
                std::memcpy(dst + p * (g.iMax + 2 * b) + b, src + p * g.iMax, g.iMax);
        }
    }
}

// The four separate border pieces; false, with none kept, when one cannot be
// allocated.
bool makeSeparateBorders(const BorderGeometry &g, unsigned char **pieces) {
    // Deliberate: each border is allocated four times the size it needs.
    pieces[0] = static_cast<unsigned char *>(allocate(g.topBottomSize * 4));
    pieces[1] = static_cast<unsigned char *>(allocate(g.topBottomSize * 4));
    pieces[2] = static_cast<unsigned char *>(allocate(g.leftRightSize * 4));
    pieces[3] = static_cast<unsigned char *>(allocate(g.leftRightSize * 4));
    const bool failed = g.topBottomSize && (!pieces[0] || !pieces[1]);
    if (failed || (g.leftRightSize && (!pieces[2] || !pieces[3]))) {
        for (int n = 0; n < 4; n++) release(pieces[n]), pieces[n] = nullptr;
        return false;
    }
    return true;
}

// RGBE: every plane is a one-sample 8-bit image. Border rows are four planes
// of iMax + 2b bytes; side pieces are packed plane-rows of b bytes, four per
// image row.
void fillRgbePlanes(const BorderGeometry &g, ImageWithBorder *img, unsigned char *const *pieces) {
    const int b = g.b, iMax = g.iMax, jMax = g.jMax;
    const size_t stride = g.extendedRowStride, planeWidth = iMax + 2 * b;
    for (int p = 0; p < 4; ++p) {
        PlaneView<unsigned char> v;
        if (img->mainImageHasBorders) {
            unsigned char *rowStart = img->image + b * stride + p * planeWidth;
            v = {rowStart + b, stride,
                 img->image + p * planeWidth,
                 img->image + (jMax + b) * stride + p * planeWidth, stride,
                 rowStart, rowStart + iMax + b, stride};
        } else {
            v = {img->inputImage + p * iMax, g.rowStride,
                 pieces[0] + p * planeWidth, pieces[1] + p * planeWidth, stride,
                 pieces[2] + p * b, pieces[3] + p * b, static_cast<size_t>(4) * b};
        }
        fillPlane(v, iMax, jMax, 1, b, 255, false);
    }
}

// Every border of the image, by its format.
void fillBorders(const BorderGeometry &g, ImageWithBorder *img, unsigned char *const *pieces) {
    const int iMax = g.iMax, jMax = g.jMax, spp = g.spp, bps = g.bps;
    const bool builtIn = img->mainImageHasBorders != 0;
    if (bps == 16) {
        using W = unsigned short;
        fillInterleaved(reinterpret_cast<W *>(img->image),
                        reinterpret_cast<const W *>(img->inputImage),
                        reinterpret_cast<W *>(pieces[0]), reinterpret_cast<W *>(pieces[1]),
                        reinterpret_cast<W *>(pieces[2]), reinterpret_cast<W *>(pieces[3]),
                        builtIn, iMax, jMax, spp, g.b, g.rowStride, g.extendedRowStride,
                        (1 << bps) - 1);
    } else if (!g.rgbe) {
        fillInterleaved<unsigned char>(img->image, img->inputImage, pieces[0], pieces[1],
                                       pieces[2], pieces[3], builtIn, iMax, jMax, spp, g.b,
                                       g.rowStride, g.extendedRowStride, (1 << bps) - 1);
    } else {
        fillRgbePlanes(g, img, pieces);
    }
}

}  // namespace

int createOutsideImageBorders(int iMax, int jMax, int spp, int bps, ImageWithBorder *img,
                              int nbProc) {
    const BorderGeometry g = borderGeometry(iMax, jMax, spp, bps, img->borderWidth);
    const bool builtIn = img->mainImageHasBorders != 0;
    unsigned char *pieces[4] = {nullptr, nullptr, nullptr, nullptr};  // top, bottom, left, right
    if (builtIn) {
        if (!allocateBuiltInCopy(g, img)) return -4;
    } else {
        img->image = img->inputImage;
        if (!makeSeparateBorders(g, pieces)) return -4;
    }
#pragma omp parallel num_threads(std::max(nbProc, 1))
    {
        // The borders mirror the copied rows: the loop's closing barrier
        // keeps them apart.
        if (builtIn) copyRows(g, img);
        fillBorders(g, img, pieces);
    }
    img->topBorder = pieces[0];
    img->bottomBorder = pieces[1];
    img->leftBorder = pieces[2];
    img->rightBorder = pieces[3];
    // The row counter's final value is the success result: jMax, or 4 * jMax
    // plane-rows for RGBE. Callers test only for -4.
    return g.rgbe ? 4 * jMax : jMax;
}

void freeOutsideImageBorders(ImageWithBorder *img) {
    if (img->mainImageHasBorders) {
        release(img->image);
        img->image = nullptr;
        return;
    }
    // The image itself is the caller's.
    for (unsigned char **border :
         {&img->topBorder, &img->bottomBorder, &img->leftBorder, &img->rightBorder}) {
        release(*border);
        *border = nullptr;
    }
}

unsigned char *imageData(int iMax, int jMax, int spp, int bps, int rowStride,
                         ImageWithBorder *img, int x, int y) {
    BF_ASSERT(!img->mainImageHasBorders);
    const ptrdiff_t b = img->borderWidth;
    const bool rgbe = bps == 32;
    // RGBE is planar: the pointer addresses plane 0, whose samples are one
    // byte apart, and each image row owns four plane-rows of the side pieces.
    const ptrdiff_t step = rgbe ? 1 : spp;
    const ptrdiff_t sideRows = rgbe ? 4 : 1;
    const ptrdiff_t extendedRowStride = rgbe ? (iMax + 2 * b) * 4 : rowStride + 2 * b * spp;
    const ptrdiff_t sampleBytes = bps == 16 ? 2 : 1;
    // Corners belong to the top and bottom borders: the row tests come first.
    if (y < 0)
        return img->topBorder + ((x + b) * step + (y + b) * extendedRowStride) * sampleBytes;
    if (y >= jMax)
        return img->bottomBorder + ((x + b) * step + (y - jMax) * extendedRowStride) * sampleBytes;
    if (x < 0) return img->leftBorder + ((x + b) + b * sideRows * y) * step * sampleBytes;
    if (x < iMax) return img->image + (x * step + static_cast<ptrdiff_t>(y) * rowStride) * sampleBytes;
    return img->rightBorder + (b * sideRows * y + (x - iMax)) * step * sampleBytes;
}

}  // namespace lumora
