// frames.h: what the files of a bracket record about themselves, and which
// two or three of many frames the library is given.
#pragma once

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

// The frames a fusion is given: all of two or three, the ones the user named,
// or three picked out of more.
struct FrameChoice {
    std::vector<std::string> paths;  // 2 or 3
    std::string line;                // what was picked and why; empty when all are fused
    std::vector<std::string> bracket;  // every frame, darkest first, when three were picked out of more
};

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
