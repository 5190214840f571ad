// align.cpp: registration of differently exposed frames (OpenCV's imgproc
// and video modules) and their resampling onto one grid.
#include "align.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "fusion_child.h"  // kForkWithOneThread

namespace lumora_fuse {
namespace {

// The coarse shift and the first fit work on pictures of at most this many
// pixels a side (or the resolution asked for, when lower); finer levels
// double it up to the resolution asked for. The first fit takes most of its
// iterations there: at 1024 the look at the 512x384 sample cost 0.95
// processor seconds, at 256 a quarter of that, with every corner found
// within 0.002 px of where it was.
constexpr int kCoarseSide = 256;
// Smaller pictures are not registered.
constexpr int kMinSide = 16;
// alignFrames registers at this resolution at most. On a 12 MP bracket moved
// by known turns and shifts (one exposure, so the truth is exact) the
// corners came out 0.005 pixel off at the full resolution, 0.007 at 2048 and
// 0.018 at 1024 pixels a side, for 4.2, 1.1 and 0.36 processor seconds.
constexpr int kFinestSide = 2048;
// The look without --align registers at this resolution first, and again at
// kFinestSide only when that would use a transform: on a 12 MP bracket, 0.16
// processor seconds instead of 2.3 for a tripod bracket.
constexpr int kLookSide = 512;
// Below this correlation, after the fit, a frame shares too little with the
// reference to be registered.
constexpr double kMinCorrelation = 0.5;
// Grey values at or below kCrushed, or at or above kClipped, carry no detail
// (JPEG leaves a few levels of noise at either end).
constexpr int kCrushed = 8, kClipped = 247;
// Pixels this close to a bitmap's threshold flip with noise and are ignored.
constexpr int kExclusion = 4;
// A pair with less of the picture well exposed in both is not registered;
// one with more than kEnoughWellExposed that cannot be fitted has no detail
// in common.
constexpr double kMinWellExposed = 0.03, kEnoughWellExposed = 0.25;
// A transform is used when it raises the gradient correlation by kMinGain
// and in kMostTiles of the tiles. On the brackets at hand, fits of up to
// 0.8 px on tripod frames raised it by up to 0.02 (whether the frames were
// that far out of line or not); fits pulled by moving balloons did so in 58%
// and 62% of the tiles, the 2 px shift under the waves in 85%, the handheld
// frame's in all.
constexpr double kMinGain = 0.01, kMostTiles = 0.8;
// Nor in a bracket none of whose frames it moves a corner by kMinMove
// pixels: frames that close are in line as far as fusion can tell, and
// resampling would soften them. Once one frame lies that far out, the camera
// was held by hand, and the smaller fits that pass the test are used too: the
// handheld bracket's bright frame, 0.6 px off, fused that way with gradients
// agreeing better with its middle frame's (0.857 against 0.853).
constexpr double kMinMove = 1.0;

cv::Mat greyOf(const Image &image) {
    const cv::Mat rgb(image.height, image.width, CV_8UC3, const_cast<unsigned char *>(image.rgb.data()));
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    return grey;
}

// A picture halved again and again: level l has about 1/2^l of the full
// size. Its pixel centres relate to the full picture's by
// x_l = s (x + 0.5) - 0.5 with s = width_l / width (and likewise in y).
std::vector<cv::Mat> halvings(const cv::Mat &full, int smallestSide, int smallestShort = 64) {
    std::vector<cv::Mat> levels{full};
    while (std::max(levels.back().cols, levels.back().rows) > smallestSide &&
           std::min(levels.back().cols, levels.back().rows) >= smallestShort) {
        cv::Mat half;
        cv::resize(levels.back(), half, cv::Size((levels.back().cols + 1) / 2, (levels.back().rows + 1) / 2), 0, 0,
                   cv::INTER_AREA);
        levels.push_back(half);
    }
    return levels;
}

// Equalising the histogram maps every exposure of a scene to about the same
// tones, so that the fit compares like with like. On the sample bracket moved
// by known transforms it came out at most 0.10 pixel off at a corner, against
// 0.11 for the gradient magnitude of the equalised picture and 0.22 for the
// plain grey one (the gradient of the plain grey one lost a frame).
cv::Mat prepared(const cv::Mat &grey) {
    cv::Mat equalised, out;
    cv::equalizeHist(grey, equalised);
    equalised.convertTo(out, CV_32F, 1.0 / 255);
    return out;
}

// The pixels that carry detail (neither crushed nor clipped), less a pixel's
// rim, where a halving mixed them with those that do not.
cv::Mat wellExposed(const cv::Mat &grey) {
    cv::Mat valid = (grey > kCrushed) & (grey < kClipped), out;
    cv::erode(valid, out, cv::Mat());
    return out;
}

// 3x3 matrices for changing between the grids of two levels.
cv::Matx33d full33(const cv::Matx23d &m) {
    return {m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2), 0, 0, 1};
}
cv::Matx33d gridMap(double sx, double sy) {  // full picture -> level with scales sx, sy
    return {sx, 0, 0.5 * sx - 0.5, 0, sy, 0.5 * sy - 0.5, 0, 0, 1};
}
cv::Matx23d top(const cv::Matx33d &m) { return {m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2)}; }

// A transform on one grid carried over to another (from -> full -> to).
cv::Matx23d regrid(const cv::Matx23d &w, const cv::Matx33d &fromFull, const cv::Matx33d &toFull) {
    return top(toFull * fromFull.inv() * full33(w) * fromFull * toFull.inv());
}

// A grey picture's levels, from the full resolution down to at most
// coarseSide pixels a side; those of at most maxSide pixels a side (0: all),
// from finest on, also with their well-exposed pixels.
struct Levels {
    std::vector<cv::Mat> grey, valid;
    int finest = 0;
    Levels(const cv::Mat &full, int coarseSide, int maxSide) : grey(halvings(full, coarseSide)) {
        while (maxSide > 0 && finest + 1 < int(grey.size()) && std::max(grey[finest].cols, grey[finest].rows) > maxSide)
            ++finest;
        valid.resize(grey.size());
        for (size_t l = finest; l < grey.size(); ++l)
            valid[l] = wellExposed(grey[l]);
    }
};

// The grey value below which a share q of the picture lies.
int quantile(const cv::Mat &grey, double q) {
    long long histogram[256] = {}, seen = 0;
    for (int y = 0; y < grey.rows; ++y)
        for (int x = 0; x < grey.cols; ++x)
            ++histogram[grey.at<unsigned char>(y, x)];
    for (int v = 0; v < 256; ++v)
        if ((seen += histogram[v]) >= q * double(grey.total()))
            return v;
    return 255;
}

// Two frames of a pair prepared for the fit, each clipped where the other is
// clipped (at the share of the picture either loses there; the tones of a
// scene keep their order across exposures): the edges of a clipped area are
// then edges of both rather than of one, and do not pull the fit. On the
// sample made into five exposures of which the brightest is 86% clipped, its
// fit to its neighbour came out 0.52 px off without this. Crushed shadows
// are left alone: matched there too, the sample's dark frame (79% crushed)
// came out 0.39 px off instead of under 0.3.
std::pair<cv::Mat, cv::Mat> pairPrepared(const cv::Mat &a, const cv::Mat &b) {
    const double clipped =
        std::max(cv::countNonZero(a >= kClipped), cv::countNonZero(b >= kClipped)) / double(a.total());
    auto matched = [&](const cv::Mat &grey) { return prepared(cv::min(grey, quantile(grey, 1 - clipped))); };
    return {matched(a), matched(b)};
}

// The median of the grey values under a mask.
int maskedMedian(const cv::Mat &grey, const cv::Mat &mask) {
    long long histogram[256] = {}, total = 0;
    for (int y = 0; y < grey.rows; ++y)
        for (int x = 0; x < grey.cols; ++x)
            if (mask.at<unsigned char>(y, x))
                ++histogram[grey.at<unsigned char>(y, x)], ++total;
    long long seen = 0;
    for (int v = 0; v < 256; ++v)
        if ((seen += histogram[v]) * 2 >= total)
            return v;
    return 128;
}

// The coarse shift d (frame(x + d) shows reference(x)) by median-threshold
// bitmaps, which do not care about exposure: each frame thresholded at its
// median over the pixels well exposed in both, ignoring pixels near the
// threshold and those crushed or clipped in either frame. The search halves
// the pictures bits times and doubles the shift back level by level, scoring
// each candidate by the share of the pixels counted in both that disagree.
// OpenCV's bitmaps (AlignMTB), which count clipped and crushed pixels, started
// the cave bracket 31 px off and one of the balloons' 25 px.
cv::Point bitmapShift(const cv::Mat &reference, const cv::Mat &frame, const cv::Mat &common, int bits) {
    const int thresholds[2] = {maskedMedian(reference, common), maskedMedian(frame, common)};
    std::vector<cv::Mat> pyramids[2] = {halvings(reference, 0, 8), halvings(frame, 0, 8)};
    const int levels = std::min<int>(bits, int(std::min(pyramids[0].size(), pyramids[1].size())) - 1);
    cv::Point shift(0, 0);
    for (int l = levels; l >= 0; --l) {
        cv::Mat bitmap[2], counted[2];
        for (int i = 0; i < 2; ++i) {
            const cv::Mat &g = pyramids[i][l];
            bitmap[i] = g > thresholds[i];
            cv::Mat distance;
            cv::absdiff(g, cv::Scalar(thresholds[i]), distance);
            counted[i] = (distance > kExclusion) & wellExposed(g);
        }
        const int w = bitmap[0].cols, h = bitmap[0].rows;
        cv::Point best = shift * 2;
        double bestError = 2;
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const cv::Point d = shift * 2 + cv::Point(dx, dy);
                const cv::Rect r(std::max(0, -d.x), std::max(0, -d.y), w - std::abs(d.x), h - std::abs(d.y));
                if (r.width < 4 || r.height < 4)
                    continue;
                const cv::Rect f = r + d;
                const cv::Mat both = counted[0](r) & counted[1](f);
                const int n = cv::countNonZero(both);
                if (n < 16)
                    continue;
                const double error = double(cv::countNonZero((bitmap[0](r) ^ bitmap[1](f)) & both)) / n;
                if (error < bestError)
                    bestError = error, best = d;
            }
        shift = best;
    }
    return shift;
}

// How well the gradients of the reference and of the frame brought onto its
// grid by w (all on one level) agree over a mask: the correlation of the
// gradient vectors, which keep their direction across exposures, over the
// whole mask and over each of kTiles x kTiles tiles (NaN for a tile with
// too little of the mask).
constexpr int kTiles = 8;
struct Agreement {
    double whole = 0;
    std::vector<double> tiles;
};
Agreement gradientAgreement(const cv::Mat &reference, const cv::Mat &frame, const cv::Matx23d &w,
                            const cv::Mat &mask) {
    cv::Mat moved, gradient[2][2];
    cv::warpAffine(frame, moved, w, reference.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
    const cv::Mat *pictures[2] = {&reference, &moved};
    for (int i = 0; i < 2; ++i) {
        cv::Mat smooth;
        cv::GaussianBlur(*pictures[i], smooth, cv::Size(), 1.5);
        cv::Sobel(smooth, gradient[i][0], CV_32F, 1, 0);
        cv::Sobel(smooth, gradient[i][1], CV_32F, 0, 1);
    }
    std::vector<double> sums(kTiles * kTiles * 4, 0.0);  // per tile: cross, two powers, pixels
    for (int y = 0; y < mask.rows; ++y)
        for (int x = 0; x < mask.cols; ++x) {
            if (!mask.at<unsigned char>(y, x))
                continue;
            const float ax = gradient[0][0].at<float>(y, x), ay = gradient[0][1].at<float>(y, x);
            const float bx = gradient[1][0].at<float>(y, x), by = gradient[1][1].at<float>(y, x);
            double *t = &sums[4 * (y * kTiles / mask.rows * kTiles + x * kTiles / mask.cols)];
            t[0] += ax * bx + ay * by;
            t[1] += ax * ax + ay * ay;
            t[2] += bx * bx + by * by;
            t[3] += 1;
        }
    Agreement result;
    double whole[3] = {0, 0, 0};
    const double tileArea = double(mask.total()) / (kTiles * kTiles);
    for (int t = 0; t < kTiles * kTiles; ++t) {
        const double *s = &sums[4 * t];
        for (int k = 0; k < 3; ++k)
            whole[k] += s[k];
        result.tiles.push_back(s[3] >= tileArea / 4 && s[1] > 0 && s[2] > 0 ? s[0] / std::sqrt(s[1] * s[2]) : NAN);
    }
    result.whole = whole[1] > 0 && whole[2] > 0 ? whole[0] / std::sqrt(whole[1] * whole[2]) : 0;
    return result;
}

// The part of the reference's grid well exposed in both: the reference's
// well-exposed pixels whose point under w lies on one of the frame's.
cv::Mat bothWellExposed(const cv::Mat &referenceValid, const cv::Mat &frameValid, const cv::Matx23d &w) {
    cv::Mat moved;
    cv::warpAffine(frameValid, moved, w, referenceValid.size(), cv::INTER_NEAREST | cv::WARP_INVERSE_MAP,
                   cv::BORDER_CONSTANT, 0);
    return referenceValid & moved;
}

struct PairResult {
    bool registered = false;  // false: no detail in common
    cv::Matx23d found{1, 0, 0, 0, 1, 0};
    Registration outcome = Registration::InLine;
};

// How far m moves the farthest-moved corner of a width x height picture.
double cornerShift(const cv::Matx23d &m, int width, int height) {
    double largest = 0;
    for (const auto &[x, y] : {std::pair{0, 0}, {width - 1, 0}, {0, height - 1}, {width - 1, height - 1}})
        largest = std::max(largest, std::hypot(m(0, 0) * x + m(0, 1) * y + m(0, 2) - x,
                                               m(1, 0) * x + m(1, 1) * y + m(1, 2) - y));
    return largest;
}

// Where frame lies against the reference, as a map from the reference's
// pixels to the frame's, on the full grid, and whether to use it.
PairResult registerFrame(const Levels &reference, const Levels &frame) {
    PairResult result;
    const int coarsest = int(reference.grey.size()) - 1, finest = reference.finest;
    auto levelGrid = [&](int l) {
        return gridMap(double(reference.grey[l].cols) / reference.grey[0].cols,
                       double(reference.grey[l].rows) / reference.grey[0].rows);
    };
    const cv::Matx23d identity(1, 0, 0, 0, 1, 0);
    const cv::Mat common = reference.valid[coarsest] & frame.valid[coarsest];
    const double wellExposed = double(cv::countNonZero(common)) / double(common.total());
    if (wellExposed < kMinWellExposed) {
        result.registered = true;
        result.outcome = Registration::TooLittle;
        return result;
    }

    const cv::Mat &refCoarse = reference.grey[coarsest], &frameCoarse = frame.grey[coarsest];
    const int side = std::min(refCoarse.cols, refCoarse.rows);
    const int bits = std::clamp(int(std::floor(std::log2(side / 8.0))), 1, 6);
    const cv::Point shift = bitmapShift(refCoarse, frameCoarse, common, bits);
    cv::Matx23f w(1, 0, float(shift.x), 0, 1, float(shift.y));

    // Rotation and shift refined level by level; past the coarsest level the
    // start is close, and the fit stops once its correlation changes by less
    // than 1e-5 (at 1e-4 the sample's dark frame came out 0.31 px off at a
    // corner instead of 0.30). The fit
    // sees the whole picture: given a mask of the part well exposed in both,
    // it put the dark frame of a tripod bracket 1.9 px off, against 0.4
    // without.
    for (int l = coarsest; l >= finest; --l) {
        if (l != coarsest)
            w = regrid(w, levelGrid(l + 1), levelGrid(l));
        const cv::TermCriteria criteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, l == coarsest ? 100 : 30,
                                        l == coarsest ? 1e-6 : 1e-5);
        cv::Mat warp(w, true);  // a fit that fails leaves w as it was
        const auto [referenceFit, frameFit] = pairPrepared(reference.grey[l], frame.grey[l]);
        double rho = 0;
        try {
            rho = cv::findTransformECC(referenceFit, frameFit, warp, cv::MOTION_EUCLIDEAN, criteria,
                                       cv::noArray(), 5);
        } catch (const cv::Exception &) {
            rho = 0;
        }
        if (l == coarsest && rho < kMinCorrelation) {
            // Too dark or too bright to fit is no reason to give up on the rest.
            result.registered = wellExposed < kEnoughWellExposed;
            result.outcome = Registration::TooLittle;
            return result;
        }
        if (rho >= kMinCorrelation)
            w = cv::Matx23f(warp.ptr<float>());
    }
    result.registered = true;
    result.found = regrid(w, levelGrid(finest), gridMap(1, 1));

    // Judged on the finest level, over the part well exposed in both frames
    // both where the frame is left and where it is moved to: clearly better
    // over the whole, and better in most tiles, so that a moving part of the
    // scene (water, a crowd) that pulled the fit does not carry it.
    const cv::Mat judged = bothWellExposed(reference.valid[finest], frame.valid[finest], w) &
                           bothWellExposed(reference.valid[finest], frame.valid[finest], identity);
    const auto [referenceFit, frameFit] = pairPrepared(reference.grey[finest], frame.grey[finest]);
    const Agreement before = gradientAgreement(referenceFit, frameFit, identity, judged);
    const Agreement after = gradientAgreement(referenceFit, frameFit, w, judged);
    int better = 0, counted = 0;
    for (size_t t = 0; t < before.tiles.size(); ++t)
        if (!std::isnan(before.tiles[t]) && !std::isnan(after.tiles[t]))
            ++counted, better += after.tiles[t] > before.tiles[t];
    if (after.whole > before.whole + kMinGain && counted > 0 && better >= kMostTiles * counted)
        result.outcome = Registration::Kept;
    return result;
}

Affine toAffine(const cv::Matx23d &m) { return {m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2)}; }
cv::Matx23d toMatx(const Affine &m) { return {m[0], m[1], m[2], m[3], m[4], m[5]}; }
double cornerShift(const Affine &m, int width, int height) { return cornerShift(toMatx(m), width, height); }
Affine compose(const Affine &a, const Affine &b) {  // a after b
    return {a[0] * b[0] + a[1] * b[3], a[0] * b[1] + a[1] * b[4], a[0] * b[2] + a[1] * b[5] + a[2],
            a[3] * b[0] + a[4] * b[3], a[3] * b[1] + a[4] * b[4], a[3] * b[2] + a[4] * b[5] + a[5]};
}

constexpr Affine kIdentity{1, 0, 0, 0, 1, 0};

// The chains of frames, each registered to the one before it, that lead from
// the reference to every other frame: through the bracket's frames between
// them where neighbours allow, else straight. Each step is a frame index
// (below frames.size()) or, past that, one of extra: the frames between, in
// bracket order, decoded here unless an earlier call left them in extra.
std::vector<std::vector<int>> chains(const std::vector<Image> &frames, int reference, const Neighbours &neighbours,
                                     std::vector<Image> &extra) {
    std::vector<std::vector<int>> straight;
    for (int i = 0; i < int(frames.size()); ++i)
        if (i != reference)
            straight.push_back({i});
    const auto &bracket = neighbours.bracket;
    if (bracket.size() <= frames.size() || neighbours.paths.size() != frames.size())
        return straight;
    std::vector<int> position;  // of each frame in the bracket
    for (const std::string &path : neighbours.paths) {
        const auto it = std::find(bracket.begin(), bracket.end(), path);
        if (it == bracket.end())
            return straight;
        position.push_back(int(it - bracket.begin()));
    }
    const int from = *std::min_element(position.begin(), position.end()),
              to = *std::max_element(position.begin(), position.end());
    std::vector<int> step(bracket.size(), -1);  // each bracket file's step index
    for (size_t i = 0; i < frames.size(); ++i)
        step[position[i]] = int(i);
    size_t next = 0;  // the next frame between
    for (int p = from; p <= to; ++p) {
        if (step[p] >= 0)
            continue;
        if (next == extra.size()) {
            Image image;
            std::string error;
            if (!readImage(bracket[p], image, error) || image.width != frames[0].width ||
                image.height != frames[0].height)
                return straight;
            extra.push_back(std::move(image));
        }
        step[p] = int(frames.size() + next++);
    }
    std::vector<std::vector<int>> result(2);
    for (int p = position[reference] - 1; p >= from; --p)
        result[0].push_back(step[p]);
    for (int p = position[reference] + 1; p <= to; ++p)
        result[1].push_back(step[p]);
    return result;
}

}  // namespace

bool estimateTransforms(const std::vector<Image> &frames, int reference, int maxSide, const Neighbours &neighbours,
                        AlignSummary &summary, std::vector<Image> *between) {
    summary.reference = reference;
    summary.transforms.assign(frames.size(), kIdentity);
    summary.found.assign(frames.size(), kIdentity);
    summary.outcome.assign(frames.size(), Registration::InLine);
    summary.outcome[reference] = Registration::Reference;
    summary.failed = -1;
    if (std::min(frames[reference].width, frames[reference].height) < kMinSide) {
        summary.failed = reference == 0 ? 1 : 0;
        return false;
    }
    const int coarseSide = maxSide > 0 ? std::min(maxSide, kCoarseSide) : kCoarseSide;
    std::vector<Image> own;
    std::vector<Image> &extra = between != nullptr ? *between : own;
    const auto paths = chains(frames, reference, neighbours, extra);
    auto image = [&](int step) -> const Image & {
        return step < int(frames.size()) ? frames[step] : extra[step - frames.size()];
    };
    const auto referenceLevels = std::make_shared<const Levels>(greyOf(frames[reference]), coarseSide, maxSide);
    for (const std::vector<int> &path : paths) {
        auto previous = referenceLevels;
        Affine found = kIdentity, used = kIdentity;
        bool tooLittle = false;
        for (const int step : path) {
            const auto levels = std::make_shared<const Levels>(greyOf(image(step)), coarseSide, maxSide);
            const PairResult pair = registerFrame(*previous, *levels);
            if (!pair.registered) {
                // The first frame along the way that cannot be registered.
                summary.failed = step < int(frames.size()) ? step : path.back();
                return false;
            }
            found = compose(toAffine(pair.found), found);
            if (pair.outcome == Registration::Kept)
                used = compose(toAffine(pair.found), used);
            tooLittle = tooLittle || pair.outcome == Registration::TooLittle;
            if (step < int(frames.size())) {
                summary.found[step] = found;
                summary.transforms[step] = used;
                summary.outcome[step] = used != kIdentity ? Registration::Kept
                                        : tooLittle       ? Registration::TooLittle
                                                          : Registration::InLine;
            }
            previous = levels;
        }
    }
    const bool handheld = std::any_of(summary.transforms.begin(), summary.transforms.end(), [&](const Affine &m) {
        return cornerShift(m, frames[0].width, frames[0].height) >= kMinMove;
    });
    for (size_t i = 0; i < frames.size() && !handheld; ++i)
        if (summary.outcome[i] == Registration::Kept) {
            summary.transforms[i] = kIdentity;
            summary.outcome[i] = Registration::InLine;
        }
    return true;
}

Rect commonArea(int width, int height, const std::vector<Affine> &transforms) {
    std::vector<unsigned char> mask(size_t(width) * height, 0);
    // A point up to a tenth of a pixel outside a frame still counts as inside
    // (the resampling repeats the edge pixels there): a registration found a
    // few thousandths of a pixel off costs no row or column.
    const double eps = 0.1;
    for (int y = 0; y < height; ++y) {
        double lo = 0, hi = width - 1;
        for (const Affine &m : transforms) {
            // Both coordinates of the frame's point, a x + b, must lie in [0, limit].
            const double rows[2][3] = {{m[0], m[1] * y + m[2], double(width - 1)},
                                       {m[3], m[4] * y + m[5], double(height - 1)}};
            for (const auto &r : rows) {
                const double a = r[0], b = r[1], limit = r[2];
                if (std::abs(a) < 1e-12) {
                    if (b < -eps || b > limit + eps)
                        hi = -1;
                    continue;
                }
                double x0 = (-eps - b) / a, x1 = (limit + eps - b) / a;
                if (x0 > x1)
                    std::swap(x0, x1);
                lo = std::max(lo, x0);
                hi = std::min(hi, x1);
            }
        }
        const int first = int(std::ceil(lo - 1e-9)), last = int(std::floor(hi + 1e-9));
        for (int x = std::max(first, 0); x <= std::min(last, width - 1); ++x)
            mask[size_t(y) * width + x] = 1;
    }
    return largestRectangle(mask, width, height);
}

bool alignFrames(std::vector<Image> &frames, int reference, AlignSummary &summary, std::string &error,
                 const Neighbours &neighbours) {
    const int width = frames[reference].width, height = frames[reference].height;
    summary = AlignSummary();
    summary.reference = reference;
    if (std::min(width, height) < kMinSide) {
        error = "pictures of fewer than " + std::to_string(kMinSide) + " pixels a side cannot be aligned";
        return false;
    }
    if (!estimateTransforms(frames, reference, kFinestSide, neighbours, summary)) {
        error = "found no common detail to register it by";
        return false;
    }
    summary.crop = commonArea(width, height, summary.transforms);
    if (summary.crop.area() == 0) {
        error = "once aligned, the frames have no area in common";
        return false;
    }
    for (const Affine &m : summary.transforms) {
        summary.largestShift = std::max(summary.largestShift, cornerShift(m, width, height));
        summary.largestAngle = std::max(summary.largestAngle, std::abs(std::atan2(m[3], m[0]) * 180 / M_PI));
    }
    const Rect &c = summary.crop;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (summary.transforms[i] == kIdentity) {
            if (c.area() != (long long)width * height)
                frames[i] = cropImage(frames[i], c);
            continue;
        }
        const Affine &m = summary.transforms[i];
        const cv::Matx23d toFrame(m[0], m[1], m[2] + m[0] * c.x + m[1] * c.y, m[3], m[4],
                                  m[5] + m[3] * c.x + m[4] * c.y);
        Image aligned;
        aligned.width = c.width;
        aligned.height = c.height;
        aligned.rgb.resize(size_t(c.width) * c.height * 3);
        const cv::Mat source(height, width, CV_8UC3, frames[i].rgb.data());
        cv::Mat target(c.height, c.width, CV_8UC3, aligned.rgb.data());
        cv::warpAffine(source, target, toFrame, target.size(), cv::INTER_CUBIC | cv::WARP_INVERSE_MAP,
                       cv::BORDER_REPLICATE);
        frames[i] = std::move(aligned);
    }
    return true;
}

std::string alignmentLine(const AlignSummary &summary, const std::vector<std::string> &names, int width, int height) {
    std::string line = "aligned " + std::to_string(names.size()) + " frames to " + names[summary.reference];
    const char *separator = ": ";
    for (size_t i = 0; i < names.size(); ++i) {
        // A frame kept moved by only some of the links on its way shows what it was moved by.
        const Affine &m = summary.outcome[i] == Registration::Kept ? summary.transforms[i] : summary.found[i];
        char text[128];
        if (summary.outcome[i] == Registration::Reference)
            continue;
        if (summary.outcome[i] == Registration::TooLittle)
            snprintf(text, sizeof text, "too little well exposed in both to register, kept as it is");
        else
            snprintf(text, sizeof text, "found %.1f px, %.2f degrees, %s", cornerShift(m, width, height),
                     std::abs(std::atan2(m[3], m[0]) * 180 / M_PI),
                     summary.outcome[i] == Registration::Kept ? "kept" : "not kept: frames already in line");
        line += separator + names[i] + " " + text;
        separator = "; ";
    }
    const Rect &c = summary.crop;
    return line + "; " + (c.area() == (long long)width * height ? "nothing cropped" : cropText(c, width, height));
}

cv::Mat bitmapDisagreement(const cv::Mat &a, const cv::Mat &b, const cv::Mat &area) {
    const cv::Mat counted = area & wellExposed(a) & wellExposed(b);
    if (cv::countNonZero(counted) == 0)
        return cv::Mat::zeros(a.size(), CV_8U);
    const int ta = maskedMedian(a, counted), tb = maskedMedian(b, counted);
    cv::Mat da, db;
    cv::absdiff(a, cv::Scalar(ta), da);
    cv::absdiff(b, cv::Scalar(tb), db);
    return ((a > ta) ^ (b > tb)) & counted & (da > kExclusion) & (db > kExclusion);
}

void setAlignmentThreads(int threads) {
    if (kForkWithOneThread)
        threads = 1;
    cv::setNumThreads(threads > 0 ? threads : -1);  // -1: OpenCV's default, every core
}

double misalignment(const std::vector<Image> &frames, int reference, const Neighbours &neighbours) {
    const Image &ref = frames[reference];
    if (std::min(ref.width, ref.height) < 64)
        return 0;
    AlignSummary summary;
    // The answer is alignFrames' own, at its resolution: at half of it, waves
    // on a bracket moved by 2 px pulled the fit twice as far, and the look
    // and --align disagreed. Only a coarser look that finds every frame less
    // than kMinMove out of line spares it; it asks no more than that, since
    // its judgement of a fit is rougher (it kept the 2 px shift under the
    // waves of a 1078-pixel bracket where the full look keeps it).
    std::vector<Image> between;  // decoded once for both passes
    if (!estimateTransforms(frames, reference, kLookSide, neighbours, summary, &between))
        return 0;
    if (std::max(ref.width, ref.height) > kLookSide) {
        if (std::none_of(summary.found.begin(), summary.found.end(),
                         [&](const Affine &m) { return cornerShift(m, ref.width, ref.height) >= kMinMove; }))
            return 0;
        if (!estimateTransforms(frames, reference, kFinestSide, neighbours, summary, &between))
            return 0;
    }
    double largest = 0;
    for (const Affine &m : summary.transforms)
        largest = std::max(largest, cornerShift(m, ref.width, ref.height));
    return largest;
}

}  // namespace lumora_fuse
