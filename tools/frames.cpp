// frames.cpp: exposure and capture time from EXIF (Exiv2), and the pick of
// three frames out of many.
#include "frames.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <numeric>

#include <exiv2/exiv2.hpp>

#include "cancel.h"
#include "options.h"

namespace lumora_fuse {
namespace {

double number(const Exiv2::ExifData &exif, const char *key) {
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    if (it == exif.end() || it->count() == 0)
        return NAN;
    const double v = it->toFloat(0);
    return std::isfinite(v) ? v : NAN;
}

// "YYYY:MM:DD HH:MM:SS" as seconds (on a calendar without time zones: only
// differences matter).
bool parseCaptureTime(const std::string &text, double &seconds) {
    struct tm t = {};
    if (sscanf(text.c_str(), "%d:%d:%d %d:%d:%d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
               &t.tm_sec) != 6 || t.tm_year < 1900)
        return false;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    seconds = double(timegm(&t));
    return true;
}

std::string baseName(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool readFrameInfo(const std::string &path, FrameInfo &info, std::string &error) {
    info = FrameInfo();
    info.path = path;
    // The reader stops at the header, where the size is known.
    bool sized = false;
    Image none;
    const SizeCheck stop = [&](int w, int h, std::string &) {
        info.width = w, info.height = h, sized = true;
        return false;
    };
    if (!readImage(path, none, error, nullptr, stop) && !sized)
        return false;
    error.clear();
    try {
        Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
        image->readMetadata();
        const Exiv2::ExifData &exif = image->exifData();
        const double t = number(exif, "Exif.Photo.ExposureTime"), n = number(exif, "Exif.Photo.FNumber"),
                     iso = number(exif, "Exif.Photo.ISOSpeedRatings"),
                     bias = number(exif, "Exif.Photo.ExposureBiasValue");
        info.exposureTime = t > 0 ? t : 0;
        info.fNumber = n > 0 ? n : 0;
        info.iso = iso > 0 ? iso : 0;
        info.hasBias = std::isfinite(bias);
        info.bias = info.hasBias ? bias : 0;
        const auto when = exif.findKey(Exiv2::ExifKey("Exif.Photo.DateTimeOriginal"));
        if (when != exif.end())
            info.hasCaptureTime = parseCaptureTime(when->toString(), info.captureTime);
    } catch (const std::exception &) {
        // No readable metadata: nothing recorded.
    }
    return true;
}

void initMetadataForThreads() { Exiv2::XmpParser::initialize(); }

bool recordedLight(const std::vector<FrameInfo> &frames, std::vector<double> &light) {
    auto all = [&](auto has) { return std::all_of(frames.begin(), frames.end(), has); };
    light.clear();
    if (frames.empty())
        return false;
    if (all([](const FrameInfo &f) { return f.exposureTime > 0; })) {
        const bool apertures = all([](const FrameInfo &f) { return f.fNumber > 0; });
        const bool speeds = all([](const FrameInfo &f) { return f.iso > 0; });
        for (const FrameInfo &f : frames)
            light.push_back(std::log2(f.exposureTime) - (apertures ? 2 * std::log2(f.fNumber) : 0) +
                            (speeds ? std::log2(f.iso / 100) : 0));
        return true;
    }
    if (all([](const FrameInfo &f) { return f.hasBias; })) {
        for (const FrameInfo &f : frames)
            light.push_back(f.bias);
        return true;
    }
    return false;
}

bool sameFile(const std::string &a, const std::string &b) {
    if (a == b)
        return true;
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

std::string sizeMismatch(int width, int height, const std::string &first, int firstWidth, int firstHeight) {
    return "size " + std::to_string(width) + "x" + std::to_string(height) + " differs from " + first + " (" +
           std::to_string(firstWidth) + "x" + std::to_string(firstHeight) + "); the exposures must be of one size";
}

int readBracket(const std::vector<std::string> &paths, const SizeCheck &firstCheck, std::vector<Image> &images,
                std::vector<std::string> &notes, std::string &error) {
    images.assign(paths.size(), Image());
    for (size_t i = 0; i < paths.size(); ++i) {
        const SizeCheck check = [&](int w, int h, std::string &message) {
            if (i == 0)
                return !firstCheck || firstCheck(w, h, message);
            if (w == images[0].width && h == images[0].height)
                return true;
            message = sizeMismatch(w, h, paths[0], images[0].width, images[0].height);
            return false;
        };
        std::vector<std::string> frameNotes;
        if (!readImage(paths[i], images[i], error, &frameNotes, check)) {
            error = paths[i] + ": " + error;
            images.clear();
            return 1;
        }
        for (const std::string &note : frameNotes)
            notes.push_back(paths[i] + ": " + note);
        if (cancelRequested()) {
            images.clear();
            return 130;
        }
    }
    return kContinue;
}

double meanBrightness(const Image &image) {
    unsigned long long sum = 0;
    for (unsigned char v : image.rgb)
        sum += v;
    return double(sum) / double(image.rgb.size());
}

std::vector<int> brightnessOrder(const std::vector<const Image *> &images) {
    std::vector<double> mean;
    for (const Image *image : images)
        mean.push_back(meanBrightness(*image));
    std::vector<int> order(images.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        if (mean[a] != mean[b])
            return mean[a] < mean[b];
        return images[a]->rgb < images[b]->rgb;
    });
    return order;
}

std::vector<size_t> lightOrder(const std::vector<double> &light) {
    std::vector<size_t> order(light.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return light[a] < light[b]; });
    return order;
}

std::array<size_t, 3> pickThree(const std::vector<double> &light, double normal) {
    const std::vector<size_t> order = lightOrder(light);
    size_t middle = order[1];
    for (size_t i = 1; i + 1 < order.size(); ++i)
        if (std::abs(light[order[i]] - normal) < std::abs(light[middle] - normal))
            middle = order[i];
    return {order.front(), middle, order.back()};
}

int chooseFrames(const std::vector<std::string> &frames, const std::vector<std::string> &named,
                 FrameChoice &choice, std::string &error) {
    choice = FrameChoice();
    const std::string count = std::to_string(frames.size()) + " frames; fusing ";
    if (!named.empty()) {
        for (const std::string &name : named) {
            const auto it = std::find_if(frames.begin(), frames.end(),
                                         [&](const std::string &f) { return sameFile(f, name); });
            if (it == frames.end()) {
                error = "--frames: " + name + " is not one of the frames given";
                return 2;
            }
            if (std::find(choice.paths.begin(), choice.paths.end(), *it) != choice.paths.end()) {
                error = "--frames: " + name + " is named twice";
                return 2;
            }
            choice.paths.push_back(*it);
            choice.line += (choice.line.empty() ? count : ", ") + baseName(*it);
        }
        choice.line += " as named by --frames";
        return kContinue;
    }
    if (frames.size() <= 3) {
        choice.paths = frames;
        return kContinue;
    }

    std::vector<FrameInfo> infos(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        if (!readFrameInfo(frames[i], infos[i], error)) {
            error = frames[i] + ": " + error;
            return 1;
        }
        if (infos[i].width != infos[0].width || infos[i].height != infos[0].height) {
            error = infos[i].path + ": " + sizeMismatch(infos[i].width, infos[i].height, infos[0].path, infos[0].width, infos[0].height);
            return 1;
        }
    }
    std::vector<double> light;
    const bool recorded = recordedLight(infos, light) &&
                          *std::max_element(light.begin(), light.end()) > *std::min_element(light.begin(), light.end());
    double normal = 118;
    if (recorded) {
        std::vector<double> sorted = light;
        std::sort(sorted.begin(), sorted.end());
        const size_t n = sorted.size();
        normal = n % 2 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
    } else {
        light.clear();
        for (const std::string &path : frames) {
            Image image;
            if (!readImage(path, image, error)) {
                error = path + ": " + error;
                return 1;
            }
            light.push_back(meanBrightness(image));
            if (cancelRequested())
                return 130;
        }
    }
    const auto [darkest, middle, brightest] = pickThree(light, normal);
    choice.paths = {frames[darkest], frames[middle], frames[brightest]};
    for (size_t i : lightOrder(light))
        choice.bracket.push_back(frames[i]);
    choice.line = count + baseName(frames[darkest]) + " (darkest), " + baseName(frames[middle]) + " (normal), " +
                  baseName(frames[brightest]) + " (brightest) by " +
                  (recorded ? "recorded exposure" : "mean brightness");
    return kContinue;
}

}  // namespace lumora_fuse
