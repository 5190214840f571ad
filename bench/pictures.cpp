#include "pictures.h"

#include <png.h>

#include <cstdio>
#include <cstdlib>

namespace benchsupport {

Bytes loadPng(const std::string &path, int *w, int *h) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Bytes out;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        std::exit(1);
    }
    image.format = PNG_FORMAT_RGB;
    out.resize(PNG_IMAGE_SIZE(image));
    png_image_finish_read(&image, nullptr, out.data(), 0, nullptr);
    *w = (int)image.width;
    *h = (int)image.height;
    return out;
}

Bytes upscale(const Bytes &src, int w, int h, int W, int H) {
    Bytes out((size_t)W * H * 3);
    for (int y = 0; y < H; y++) {
        const float fy = (y + 0.5f) * h / H - 0.5f;
        const int y0 = fy < 0 ? 0 : (int)fy, y1 = y0 + 1 < h ? y0 + 1 : h - 1;
        const float ty = fy < 0 ? 0.0f : fy - y0;
        for (int x = 0; x < W; x++) {
            const float fx = (x + 0.5f) * w / W - 0.5f;
            const int x0 = fx < 0 ? 0 : (int)fx, x1 = x0 + 1 < w ? x0 + 1 : w - 1;
            const float tx = fx < 0 ? 0.0f : fx - x0;
            for (int s = 0; s < 3; s++) {
                auto at = [&](int xx, int yy) { return (float)src[((size_t)yy * w + xx) * 3 + s]; };
                const float top = at(x0, y0) * (1 - tx) + at(x1, y0) * tx;
                const float bottom = at(x0, y1) * (1 - tx) + at(x1, y1) * tx;
                out[((size_t)y * W + x) * 3 + s] =
                    (unsigned char)(top * (1 - ty) + bottom * ty + 0.5f);
            }
        }
    }
    return out;
}

}  // namespace benchsupport
