// crop.h: cutting a set of frames down to the area they all cover.
//
// Used by the alignment (the area every warped frame covers) and by inputs
// with transparent edges (the area opaque in every frame).
#pragma once

#include <string>
#include <vector>

#include "image_io.h"

namespace lumora_fuse {

struct Rect {
    int x = 0, y = 0, width = 0, height = 0;
    long long area() const { return (long long)width * height; }
};

// The largest axis-aligned rectangle of non-zero entries in a width x height
// mask (row-major); empty (0x0) when the mask has none. Of equal areas, the
// one found first from the top.
Rect largestRectangle(const std::vector<unsigned char> &mask, int width, int height);

// The pixels of image inside rect (which must lie inside it); its alpha too.
Image cropImage(const Image &image, const Rect &rect);

// One line on how much of a width x height picture a crop to rect cuts away,
// e.g. "cropped to 500x380 at 6,2 (3.5% of the area cut away)".
std::string cropText(const Rect &rect, int width, int height);

// Frames that carry alpha (Image::alpha): every frame is cut down to the
// largest rectangle where all of them are opaque (alpha 255), and the alpha
// dropped. Returns false with a message when no pixel is opaque in every
// frame. kept is the rectangle kept (the whole picture when no frame has
// alpha). The frames must share one size.
bool cropToOpaque(std::vector<Image> &frames, Rect &kept, std::string &error);

}  // namespace lumora_fuse
