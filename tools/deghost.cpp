// deghost.cpp: motion masks by re-exposed reference and median-threshold
// bitmaps, cleaned and applied (OpenCV's core and imgproc).
#include "deghost.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include <opencv2/imgproc.hpp>

#include "align.h"

namespace lumora_fuse {
namespace {

// Levels at or below kCrushed, or at or above kClipped, carry no detail (as
// for the alignment).
constexpr int kCrushed = 8, kClipped = 247;
// Masks are found on frames reduced to at most this many pixels a side (area
// averages): a 12 MP frame by 4, which also averages its noise away.
constexpr int kWorkSide = 1024;
// The look that suggests --deghost works at this side.
constexpr int kCheckSide = 256;
// A pixel moved when it differs from the re-exposed reference by more than
// kSigmas times the noise at its level, and by at least kMinDifference levels
// of the darker frame (quantisation and JPEG).
constexpr double kSigmas = 4;
constexpr int kMinDifference = 8;
// Specks smaller than this share of the picture (and 9 pixels) are dropped.
constexpr double kMinSpeck = 0.0002;
// Masks grow by this share of the picture's short side (at least 2 pixels)
// and are feathered over the same width.
constexpr double kGrowth = 1.0 / 150;

cv::Mat matOf(const Image &image) {
    return cv::Mat(image.height, image.width, CV_8UC3, const_cast<unsigned char *>(image.rgb.data()));
}

// The factor a picture is reduced by to fit side pixels a side.
int reduction(int width, int height, int side) { return std::max(1, (std::max(width, height) + side - 1) / side); }

cv::Mat reduced(const cv::Mat &full, int factor) {
    if (factor == 1)
        return full;
    cv::Mat out;
    cv::resize(full, out, cv::Size((full.cols + factor - 1) / factor, (full.rows + factor - 1) / factor), 0, 0,
               cv::INTER_AREA);
    return out;
}

// Per channel, the share of the picture at or below each level.
struct Cumulative {
    double share[3][256];
};

Cumulative cumulativeOf(const cv::Mat &rgb) {
    Cumulative result;
    for (int c = 0; c < 3; ++c) {
        cv::Mat histogram;
        const int channels[] = {c}, sizes[] = {256};
        const float range[] = {0, 256};
        const float *ranges[] = {range};
        cv::calcHist(&rgb, 1, channels, cv::Mat(), histogram, 1, sizes, ranges);
        double seen = 0;
        for (int v = 0; v < 256; ++v)
            result.share[c][v] = (seen += double(histogram.at<float>(v))) / double(rgb.total());
    }
    return result;
}

// The look-up table (1 x 256, three channels) that re-exposes a picture with
// the histograms from as one with the histograms to: each level goes to the
// level of to reached by the middle of its own bin's share. The clipped and
// crushed bins hold their places in the shares (their pixels lie beyond the
// levels that carry detail) but the motion test never looks at them.
cv::Mat exposureMap(const Cumulative &from, const Cumulative &to) {
    cv::Mat table(1, 256, CV_8UC3);
    for (int c = 0; c < 3; ++c) {
        int u = 0;
        for (int v = 0; v < 256; ++v) {
            const double middle = ((v ? from.share[c][v - 1] : 0.0) + from.share[c][v]) / 2;
            while (u < 255 && to.share[c][u] < middle)
                ++u;
            table.at<cv::Vec3b>(0, v)[c] = (unsigned char)u;
        }
    }
    return table;
}

// Per level of one of the pictures compared (one channel), the difference
// that noise explains: kSigmas times 1.4826 times the median difference of the
// pixels at that level and the two next to it on either side, at least
// kMinDifference. Noise, quantisation, the camera's shoulder and its colour
// processing all spread the darker frame's levels around the map, and they
// spread them differently at every level; motion over less than half of a
// level's pixels leaves its median alone. A level with fewer than kFewPixels
// tested takes the median of the whole picture; one where the other frame
// carries detail in less than half of its pixels tells nothing (those few
// lie at the edge of the other's clipped or crushed areas, or are what
// moved), and the other picture's level decides.
constexpr int kFewPixels = 32;
cv::Mat explained(const cv::Mat &level, const cv::Mat &difference, const cv::Mat &valid) {
    cv::Mat joint, levels;  // 256 x 256: level, difference; 256: level
    const cv::Mat pair[] = {level, difference};
    const int channels[] = {0, 1}, sizes[] = {256, 256};
    const float range[] = {0, 256};
    const float *ranges[] = {range, range};
    cv::calcHist(pair, 2, channels, valid, joint, 2, sizes, ranges);
    cv::calcHist(&level, 1, channels, cv::Mat(), levels, 1, sizes, ranges);
    // Over the levels from..to: -1 when too few are tested, 255 when the
    // other frame carries detail in too few of them.
    auto median = [&](int from, int to) {
        double counts[256] = {}, total = 0, all = 0;
        for (int v = std::max(from, 0); v <= std::min(to, 255); ++v) {
            all += levels.at<float>(v);
            for (int d = 0; d < 256; ++d)
                counts[d] += joint.at<float>(v, d), total += joint.at<float>(v, d);
        }
        if (total < kFewPixels)
            return -1;
        if (total * 2 < all)
            return 255;
        double seen = 0;
        for (int d = 0; d < 256; ++d)
            if ((seen += counts[d]) * 2 >= total)
                return d;
        return 255;
    };
    const int whole = std::max(median(0, 255), 0);
    cv::Mat table(1, 256, CV_8U);
    for (int v = 0; v < 256; ++v) {
        const int m = median(v - 2, v + 2);
        table.at<unsigned char>(v) =
            cv::saturate_cast<unsigned char>(std::max(kSigmas * 1.4826 * (m < 0 ? whole : m), double(kMinDifference)));
    }
    cv::Mat allowed;
    cv::LUT(level, table, allowed);
    return allowed;
}

// Where both pictures (one re-exposed to the other's levels) have texture
// but it does not match: the correlation of their grey levels over a
// kWindow-pixel square is below kMatched while both vary by kTexture levels
// or more. Ripples on water move everywhere at once, so that no level's
// statistics can single them out; their texture never lines up.
constexpr int kWindow = 7;
constexpr double kMatched = 0.3, kTexture = 6;
cv::Mat textureMoved(const cv::Mat &predicted, const cv::Mat &actual, const cv::Mat &valid) {
    cv::Mat p, a, pp, aa, pa, inside;
    cv::cvtColor(predicted, p, cv::COLOR_RGB2GRAY);
    cv::cvtColor(actual, a, cv::COLOR_RGB2GRAY);
    p.convertTo(p, CV_32F);
    a.convertTo(a, CV_32F);
    const cv::Size window(kWindow, kWindow);
    auto mean = [&](const cv::Mat &m) {
        cv::Mat out;
        cv::boxFilter(m, out, CV_32F, window);
        return out;
    };
    const cv::Mat mp = mean(p), ma = mean(a);
    const cv::Mat vp = mean(p.mul(p)) - mp.mul(mp), va = mean(a.mul(a)) - ma.mul(ma);
    const cv::Mat cov = mean(p.mul(a)) - mp.mul(ma);
    const double t2 = kTexture * kTexture;
    cv::Mat product = vp.mul(va), root;
    cv::sqrt(cv::max(product, 1e-6), root);
    cv::erode(valid, inside, cv::getStructuringElement(cv::MORPH_RECT, window));
    return (cov < kMatched * root) & (vp > t2) & (va > t2) & inside;
}

// Where frame differs from the reference beyond its exposure and noise (255),
// both reduced alike. Compared in the darker one's levels, into which the
// brighter one maps with the least quantisation: a pixel differs by as much
// as it lies outside the range of the re-exposed picture's 3x3 neighbourhood,
// so that an edge a fraction of a pixel out of line does not count. Pixels
// next to a clipped or crushed one are left out too (glare spreads from
// clipped areas in the brighter frame). The noise is taken by the level of
// either picture, whichever explains less: an object whose levels nothing
// else in the picture has fills its own levels' statistics where it is, but
// not those of the background the other frame shows there.
cv::Mat moved(const cv::Mat &reference, const cv::Mat &frame, const Cumulative &referenceShares,
              const Cumulative &frameShares) {
    const cv::Scalar r = cv::mean(reference), f = cv::mean(frame);
    const bool frameDarker = f[0] + f[1] + f[2] < r[0] + r[1] + r[2];
    const cv::Mat &actual = frameDarker ? frame : reference, &brighter = frameDarker ? reference : frame;
    cv::Mat predicted, low, high, below, above, difference, valid;
    cv::LUT(brighter, frameDarker ? exposureMap(referenceShares, frameShares) : exposureMap(frameShares, referenceShares),
            predicted);
    cv::erode(predicted, low, cv::Mat());
    cv::dilate(predicted, high, cv::Mat());
    cv::subtract(low, actual, below);  // saturates at 0
    cv::subtract(actual, high, above);
    cv::absdiff(predicted, actual, difference);
    cv::erode((reference > kCrushed) & (reference < kClipped) & (frame > kCrushed) & (frame < kClipped), valid,
              cv::Mat());
    std::vector<cv::Mat> b, a, d, e, v;
    cv::split(brighter, b);
    cv::split(actual, a);
    cv::split(difference, d);
    cv::split(cv::max(below, above), e);
    cv::split(valid, v);
    cv::Mat any = cv::Mat::zeros(reference.size(), CV_8U);
    for (int c = 0; c < 3; ++c)
        any |= (e[c] > cv::min(explained(b[c], d[c], v[c]), explained(a[c], d[c], v[c]))) & v[c];
    return any | textureMoved(predicted, actual, v[0] & v[1] & v[2]);
}

// Opened, closed and rid of specks: what stays is motion, not noise.
cv::Mat cleaned(const cv::Mat &motion) {
    cv::Mat mask;
    cv::morphologyEx(motion, mask, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_ELLIPSE, {3, 3}));
    cv::morphologyEx(mask, mask, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_ELLIPSE, {5, 5}));
    cv::Mat labels, stats, centres;
    const int count = cv::connectedComponentsWithStats(mask, labels, stats, centres, 8, CV_32S);
    const double smallest = std::max(9.0, kMinSpeck * double(mask.total()));
    std::vector<unsigned char> kept(count, 0);
    for (int k = 1; k < count; ++k)
        kept[k] = stats.at<int>(k, cv::CC_STAT_AREA) >= smallest ? 255 : 0;
    for (int y = 0; y < mask.rows; ++y)
        for (int x = 0; x < mask.cols; ++x)
            mask.at<unsigned char>(y, x) = kept[labels.at<int>(y, x)];
    return mask;
}

// The opacity of the replacement at the full size: the mask grown by its
// margin, but not past where the replacement's source carries detail (a
// clipped source would paint a flat, colour-cast patch), and feathered over
// the margin, then enlarged. Empty when the mask is.
cv::Mat opacity(const cv::Mat &mask, const cv::Mat &sourceDetail, const cv::Size &full) {
    if (cv::countNonZero(mask) == 0)
        return cv::Mat();
    const int margin = std::max(2, int(std::lround(kGrowth * std::min(mask.cols, mask.rows))));
    cv::Mat grown, soft;
    cv::dilate(mask, grown, cv::getStructuringElement(cv::MORPH_ELLIPSE, {2 * margin + 1, 2 * margin + 1}));
    grown &= sourceDetail;
    // A third of the margin: the mask itself keeps 254 of 255 of the replacement.
    cv::GaussianBlur(grown, soft, cv::Size(), margin / 3.0);
    if (soft.size() == full)
        return soft;
    cv::Mat enlarged;
    cv::resize(soft, enlarged, full, 0, 0, cv::INTER_LINEAR);
    return enlarged;
}

// frame = frame (255 - a) + content a, a the opacity, rounded; pixels of
// opacity 0 are not touched.
void blend(Image &frame, const cv::Mat &content, const cv::Mat &alpha) {
    const size_t pixels = size_t(frame.width) * frame.height;
    const unsigned char *a = alpha.ptr<unsigned char>(), *c = content.ptr<unsigned char>();
    unsigned char *p = frame.rgb.data();
    for (size_t i = 0; i < pixels; ++i) {
        const int w = a[i];
        if (w == 0)
            continue;
        for (int k = 0; k < 3; ++k)
            p[3 * i + k] = (unsigned char)((p[3 * i + k] * (255 - w) + c[3 * i + k] * w + 127) / 255);
    }
}

// Pixels of which no channel is clipped or crushed.
cv::Mat detailOf(const cv::Mat &rgb) {
    std::vector<cv::Mat> channels;
    cv::split((rgb > kCrushed) & (rgb < kClipped), channels);
    return channels[0] & channels[1] & channels[2];
}

cv::Mat greyOf(const cv::Mat &rgb) {
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    return grey;
}

// How well exposed a grey picture is over a mask: the sum of each pixel's
// closeness to mid-grey, exp(-(v/255 - 0.5)^2 / 0.08), as the fusion weighs
// exposure.
double exposedness(const cv::Mat &grey, const cv::Mat &mask) {
    cv::Mat table(1, 256, CV_32F), weights, counted = cv::Mat::zeros(grey.size(), CV_32F);
    for (int v = 0; v < 256; ++v)
        table.at<float>(v) = float(std::exp(-std::pow(v / 255.0 - 0.5, 2) / 0.08));
    cv::LUT(grey, table, weights);
    weights.copyTo(counted, mask);
    return cv::sum(counted)[0];
}

}  // namespace

void deghostFrames(std::vector<Image> &frames, int reference, DeghostSummary &summary) {
    const int count = int(frames.size()), width = frames[reference].width, height = frames[reference].height;
    summary = DeghostSummary();
    summary.reference = reference;
    summary.width = width;
    summary.height = height;
    summary.replaced.assign(count, 0.0);
    summary.masks.assign(count, {});
    const int factor = reduction(width, height, kWorkSide);
    std::vector<cv::Mat> small, grey;
    std::vector<Cumulative> shares;
    for (const Image &frame : frames) {
        small.push_back(reduced(matOf(frame), factor));
        grey.push_back(greyOf(small.back()));
        shares.push_back(cumulativeOf(small.back()));
    }
    const cv::Size full(width, height);

    // Where the reference carries no detail, the frame best exposed there
    // stands in for it, and the others are compared with it by bitmaps and,
    // since an object on a flat background crosses no median, by the same
    // re-exposure test as with the reference.
    std::vector<cv::Mat> standIn(count);
    int best = -1;
    const cv::Mat blank = (grey[reference] <= kCrushed) | (grey[reference] >= kClipped);
    if (count > 2 && cv::countNonZero(blank) > 0) {
        double bestScore = 0;
        for (int i = 0; i < count; ++i) {
            const double score = i == reference ? 0 : exposedness(grey[i], blank);
            if (score > bestScore)
                best = i, bestScore = score;
        }
        for (int i = 0; best >= 0 && i < count; ++i)
            if (i != reference && i != best)
                standIn[i] = opacity(cleaned(blank & (bitmapDisagreement(grey[best], grey[i], blank) |
                                                      moved(small[best], small[i], shares[best], shares[i]))),
                                     detailOf(small[best]), full);
    }

    for (int i = 0; i < count; ++i) {
        if (i == reference)
            continue;
        const cv::Mat alpha = opacity(cleaned(moved(small[reference], small[i], shares[reference], shares[i])),
                                      detailOf(small[reference]), full);
        if (alpha.empty() && standIn[i].empty())
            continue;  // the frame stays byte for byte as it was
        if (!standIn[i].empty()) {
            cv::Mat content;
            cv::LUT(matOf(frames[best]), exposureMap(shares[best], shares[i]), content);
            blend(frames[i], content, standIn[i]);
        }
        if (!alpha.empty()) {
            cv::Mat content;
            cv::LUT(matOf(frames[reference]), exposureMap(shares[reference], shares[i]), content);
            blend(frames[i], content, alpha);
        }
        const cv::Mat both = alpha.empty() ? standIn[i] : standIn[i].empty() ? alpha : cv::max(alpha, standIn[i]);
        summary.masks[i].assign(both.datastart, both.dataend);
        summary.replaced[i] = cv::sum(both)[0] / (255.0 * double(both.total()));
    }
}

double motionShare(const std::vector<Image> &frames, int reference) {
    const int factor = reduction(frames[reference].width, frames[reference].height, kCheckSide);
    const cv::Mat ref = reduced(matOf(frames[reference]), factor);
    const Cumulative referenceShares = cumulativeOf(ref);
    cv::Mat any = cv::Mat::zeros(ref.size(), CV_8U);
    for (int i = 0; i < int(frames.size()); ++i) {
        if (i == reference)
            continue;
        const cv::Mat frame = reduced(matOf(frames[i]), factor);
        any |= cleaned(moved(ref, frame, referenceShares, cumulativeOf(frame)));
    }
    return double(cv::countNonZero(any)) / double(any.total());
}

std::string deghostLine(const DeghostSummary &summary, const std::vector<std::string> &names) {
    std::string line = "deghosted against " + names[summary.reference];
    const char *separator = ": replaced ";
    bool any = false;
    for (size_t i = 0; i < names.size(); ++i) {
        if (int(i) == summary.reference)
            continue;
        char share[32];
        const double percent = 100 * summary.replaced[i];
        if (summary.masks[i].empty())
            snprintf(share, sizeof share, "nothing");
        else if (percent < 0.1)
            snprintf(share, sizeof share, "under 0.1%%");
        else
            snprintf(share, sizeof share, "%.1f%%", percent);
        line += separator + std::string(share) + " of " + names[i];
        separator = ", ";
        any = any || !summary.masks[i].empty();
    }
    return any ? line : "deghosted against " + names[summary.reference] + ": nothing replaced, the frames agree";
}

bool prepareMaskFolder(const std::string &folder, std::string &error) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (!ec && !std::filesystem::is_directory(folder, ec))
        ec = std::make_error_code(std::errc::not_a_directory);
    if (!ec && access(folder.c_str(), W_OK | X_OK) != 0)
        ec = std::error_code(errno, std::generic_category());
    if (ec)
        error = folder + ": cannot write the masks: " + ec.message();
    return !ec;
}

bool writeMasks(const std::string &folder, const DeghostSummary &summary, const std::vector<std::string> &names,
                std::string &error) {
    const size_t pixels = size_t(summary.width) * summary.height;
    std::vector<unsigned char> rgb(pixels * 3);
    for (size_t i = 0; i < names.size(); ++i) {
        const std::vector<unsigned char> &mask = summary.masks[i];
        for (size_t p = 0; p < pixels; ++p)
            rgb[3 * p] = rgb[3 * p + 1] = rgb[3 * p + 2] = mask.empty() ? 0 : mask[p];
        const std::string path =
            folder + "/" + std::filesystem::path(names[i]).stem().string() + "_mask.png";
        if (!writeImage(path, FileFormat::Png, summary.width, summary.height, 8, rgb.data(), 0, error)) {
            error = path + ": cannot write the mask: " + error;
            return false;
        }
    }
    return true;
}

}  // namespace lumora_fuse
