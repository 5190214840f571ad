// crop.cpp: the largest rectangle inside a mask, and frames cut down to it.
#include "crop.h"

#include <cstdio>
#include <cstring>

namespace lumora_fuse {

// Row by row, the heights of the runs of set entries ending in that row form
// a histogram; its largest rectangle, found with a stack in one pass, is the
// largest one whose bottom edge is that row.
Rect largestRectangle(const std::vector<unsigned char> &mask, int width, int height) {
    Rect best;
    std::vector<int> run(size_t(width) + 1, 0);  // run[width] stays 0 and empties the stack
    std::vector<int> stack;
    stack.reserve(size_t(width) + 1);
    for (int y = 0; y < height; ++y) {
        const unsigned char *row = mask.data() + size_t(y) * width;
        for (int x = 0; x < width; ++x)
            run[x] = row[x] ? run[x] + 1 : 0;
        stack.clear();
        for (int x = 0; x <= width; ++x) {
            while (!stack.empty() && run[stack.back()] >= run[x]) {
                const int h = run[stack.back()];
                stack.pop_back();
                const int left = stack.empty() ? 0 : stack.back() + 1;
                const Rect r{left, y - h + 1, x - left, h};
                if (r.area() > best.area())
                    best = r;
            }
            stack.push_back(x);
        }
    }
    return best;
}

Image cropImage(const Image &image, const Rect &rect) {
    Image out;
    out.width = rect.width;
    out.height = rect.height;
    out.rgb.resize(size_t(rect.width) * rect.height * 3);
    for (int y = 0; y < rect.height; ++y)
        memcpy(&out.rgb[size_t(y) * rect.width * 3],
               &image.rgb[((size_t(rect.y) + y) * image.width + rect.x) * 3], size_t(rect.width) * 3);
    if (!image.alpha.empty()) {
        out.alpha.resize(size_t(rect.width) * rect.height);
        for (int y = 0; y < rect.height; ++y)
            memcpy(&out.alpha[size_t(y) * rect.width], &image.alpha[(size_t(rect.y) + y) * image.width + rect.x],
                   size_t(rect.width));
    }
    return out;
}

std::string cropText(const Rect &rect, int width, int height) {
    char text[128];
    snprintf(text, sizeof text, "cropped to %dx%d at %d,%d (%.1f%% of the area cut away)", rect.width, rect.height,
             rect.x, rect.y, 100.0 * (1.0 - double(rect.area()) / (double(width) * height)));
    return text;
}

bool cropToOpaque(std::vector<Image> &frames, Rect &kept, std::string &error) {
    const int width = frames[0].width, height = frames[0].height;
    kept = Rect{0, 0, width, height};
    std::vector<unsigned char> opaque;
    for (const Image &frame : frames) {
        if (frame.alpha.empty())
            continue;
        if (opaque.empty())
            opaque.assign(size_t(width) * height, 1);
        for (size_t i = 0; i < opaque.size(); ++i)
            opaque[i] &= frame.alpha[i] == 255;
    }
    if (opaque.empty())
        return true;
    kept = largestRectangle(opaque, width, height);
    if (kept.area() == 0) {
        error = "no pixel is opaque in every frame: their transparent parts leave nothing to fuse";
        return false;
    }
    for (Image &frame : frames) {
        if (kept.width != width || kept.height != height)
            frame = cropImage(frame, kept);
        frame.alpha.clear();
        frame.alpha.shrink_to_fit();
    }
    return true;
}

}  // namespace lumora_fuse
