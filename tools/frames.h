// frames.h: what the files of a bracket record about themselves, and which
// two or three of many frames the library is given.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "image_io.h"

namespace lumora_fuse {

// One input file, known from its header and its EXIF data; nothing decoded.
struct FrameInfo {
    std::string path;
    int width = 0, height = 0;
    double exposureTime = 0, fNumber = 0, iso = 0;  // 0 when not recorded
    bool hasBias = false;
    double bias = 0;         // ExposureBiasValue, in EV
    bool hasCaptureTime = false;
    double captureTime = 0;  // DateTimeOriginal, in seconds
};

// The size from the file's header and the exposure and capture time from its
// EXIF data (missing or unreadable EXIF leaves them unrecorded). False with a
// message (without the file name) when the file is not a readable image.
bool readFrameInfo(const std::string &path, FrameInfo &info, std::string &error);

// Readies Exiv2 for readFrameInfo in more than one thread at a time; called
// before any thread starts.
void initMetadataForThreads();

// The light each frame took in, in EV (higher is brighter), when every frame
// records it: log2 of the exposure time, less 2 log2 of the f-number and plus
// log2(ISO / 100) where every frame records those too; otherwise the
// exposure bias. False when neither is recorded by all.
bool recordedLight(const std::vector<FrameInfo> &frames, std::vector<double> &light);

// The same file, by name or by identity.
bool sameFile(const std::string &a, const std::string &b);

// "size WxH differs from FIRST (W0xH0); the exposures must be of one size"
std::string sizeMismatch(int width, int height, const std::string &first, int firstWidth, int firstHeight);

// Decodes the frames at paths, every header checked before its pixels are
// decoded: the first one's by firstCheck, the others' against the first
// one's size. The readers' notes on conversions go to notes as "PATH: note".
// Returns kContinue; 1 with error "PATH: reason" and no images; or 130 when
// a cancellation came between two frames.
int readBracket(const std::vector<std::string> &paths, const SizeCheck &firstCheck, std::vector<Image> &images,
                std::vector<std::string> &notes, std::string &error);

// The mean of all samples.
double meanBrightness(const Image &image);

// Indices of images, darkest first by mean brightness. Equal means fall back
// on the pixels themselves, so that the order never depends on the order
// the images came in.
std::vector<int> brightnessOrder(const std::vector<const Image *> &images);

// The frames a fusion is given: all of two or three, the ones the user named,
// or three picked out of more.
struct FrameChoice {
    std::vector<std::string> paths;  // 2 or 3
    std::string line;                // what was picked and why; empty when all are fused
    std::vector<std::string> bracket;  // every frame, darkest first, when three were picked out of more
};

// Indices of frames by their light, darkest first; ties keep their order.
std::vector<size_t> lightOrder(const std::vector<double> &light);

// Of three or more frames by their light (higher is brighter): the darkest,
// of the others the one nearest normal (the first of equals in light order),
// and the brightest; ties in light keep the frames' order. Indices into light.
std::array<size_t, 3> pickThree(const std::vector<double> &light, double normal);

// With named frames, those (each one of the frames). With more than three,
// the darkest, the brightest and, of the others, the one nearest a normal
// exposure: by the recorded light (nearest the median of all frames) when
// every frame records it and it differs between them, else by mean
// brightness (nearest mid-grey, 118), which decodes every frame. Returns
// kContinue, 1 (a frame unreadable or of another size; error names it), 2 (a
// named frame not among the frames) or 130 (cancelled).
int chooseFrames(const std::vector<std::string> &frames, const std::vector<std::string> &named,
                 FrameChoice &choice, std::string &error);

}  // namespace lumora_fuse
