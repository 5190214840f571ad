#include "test_support.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>
#include <png.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>

#include "filter/filter.h"

namespace testsupport {

Bytes randomImage(int iMax, int jMax, int spp, uint32_t seed) {
    std::mt19937 gen(seed);
    Bytes img(static_cast<size_t>(iMax) * jMax * spp);
    for (auto &v : img) v = static_cast<unsigned char>(gen() & 0xff);
    return img;
}

Bytes testPicture(int kind, int iMax, int jMax, int spp, uint32_t seed) {
    if (kind == 0) return randomImage(iMax, jMax, spp, seed);
    std::mt19937 gen(seed);
    const int lo = (int)(gen() % 60), hi = 190 + (int)(gen() % 66);
    Bytes img((size_t)iMax * jMax * spp);
    for (int y = 0; y < jMax; y++)
        for (int x = 0; x < iMax; x++)
            for (int s = 0; s < spp; s++) {
                int v = 0;
                switch (kind) {
                    case 1: v = (lo + 70 * s) % 256; break;
                    case 2: v = ((x / 5 + y / 4) % 2 || x > y + s) ? hi - 40 * s : lo + 20 * s; break;
                    case 3: v = (s == 0 ? x * 255 / std::max(iMax - 1, 1)
                                        : s == 1 ? y * 255 / std::max(jMax - 1, 1) : (x + y) % 256);
                        break;
                    case 4: v = (x % 11 < 3 && y % 7 < 3) ? lo : 250 + (int)(gen() % 6); break;
                    default: v = ((x / 6 + y / 5) % 2 ? hi : lo) + (int)(gen() % 21) - 10; break;
                }
                img[((size_t)y * iMax + x) * spp + s] = (unsigned char)std::clamp(v, 0, 255);
            }
    return img;
}

Bytes brightMap(int kind, int iMax, int jMax, uint32_t seed) {
    if (kind == 1) return randomImage(iMax, jMax, 1, seed);
    static const int periods[] = {30, 50, 70, 90, 110, 130, 150};
    static const int bands[] = {0,   5,   10,  20,  30,  40,  50,  60,  70,  80,  90,  100, 110,
                                120, 130, 140, 150, 160, 170, 180, 190, 200, 255};
    Bytes map((size_t)iMax * jMax, 100);
    for (int y = 0; kind != 3 && y < jMax; y++)
        for (int x = 0; x < iMax; x++)
            map[(size_t)y * iMax + x] =
                (unsigned char)(kind == 2   ? bands[(x / 3 + y * 5 + seed) % 23]
                                : x / 32 == 1 ? 255
                                              : periods[(y + seed) % 7]);
    return map;
}

Bytes sample(int k, int x0, int y0, int w, int h) {
    static const char *names[3] = {"0_dark.png", "1_mid.png", "2_bright.png"};
    const std::string path = std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + names[k];
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Bytes all, out((size_t)w * h * 3);
    if (png_image_begin_read_from_file(&image, path.c_str())) {
        image.format = PNG_FORMAT_RGB;
        all.resize(PNG_IMAGE_SIZE(image));
        if (png_image_finish_read(&image, nullptr, all.data(), 0, nullptr) && image.width == 512 &&
            image.height == 384) {
            for (int y = 0; y < h; y++)
                std::memcpy(&out[(size_t)y * w * 3], &all[((size_t)(y0 + y) * 512 + x0) * 3],
                            (size_t)w * 3);
            return out;
        }
    }
    ADD_FAILURE() << "cannot read " << path << " as a 512x384 RGB image: " << image.message;
    return out;
}

uint64_t checksum(const void *data, size_t size, uint64_t h) {
    const unsigned char *p = static_cast<const unsigned char *>(data);
    for (size_t n = 0; n < size; n++) h = (h ^ p[n]) * 1099511628211ull;
    return h;
}

void forEachTarget(const std::function<void(int)> &f) {
    int index = 0;
    for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
        SCOPED_TRACE(hwy::TargetName(target));
        hwy::SetSupportedTargetsForTest(target);
        EXPECT_STREQ(lumora::simd::targetName(), hwy::TargetName(target));
        f(index++);
    }
    hwy::SetSupportedTargetsForTest(0);
}

std::string firstDifference(const Bytes &want, const Bytes &got, int iMax, int spp,
                            int bytesPerSample) {
    if (want.size() != got.size()) return "sizes differ";
    const size_t k = std::mismatch(want.begin(), want.end(), got.begin()).first - want.begin();
    if (k == want.size()) return "";
    const size_t pixel = k / bytesPerSample / spp;
    std::ostringstream s;
    s << "byte " << k << " (pixel " << pixel % iMax << ", " << pixel / iMax << " sample "
      << k / bytesPerSample % spp << "): plain " << (int)want[k] << ", fast " << (int)got[k];
    return s.str();
}

}  // namespace testsupport
