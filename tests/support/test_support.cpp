#include "test_support.h"

#include <gtest/gtest.h>

#include <png.h>

#include <cstdio>
#include <filesystem>
#include <random>

namespace testsupport {

std::vector<unsigned char> randomImage(int iMax, int jMax, int spp, uint32_t seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned char> img(static_cast<size_t>(iMax) * jMax * spp);
    for (auto &v : img) v = static_cast<unsigned char>(gen() & 0xff);
    return img;
}

std::string tempPath(const std::string &name) {
    const auto *info = testing::UnitTest::GetInstance()->current_test_info();
    std::filesystem::path dir = std::filesystem::temp_directory_path() / "lumora-tests";
    if (info) dir /= std::string(info->test_suite_name()) + "." + info->name();
    std::filesystem::create_directories(dir);
    return (dir / name).string();
}

std::string samplePath(const std::string &relative) {
    return std::string(LUMORA_SAMPLES_DIR) + "/" + relative;
}

RgbImage loadPngRgb(const std::string &path) {
    RgbImage out;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        ADD_FAILURE() << "cannot read " << path << ": " << image.message;
        return out;
    }
    image.format = PNG_FORMAT_RGB;
    out.width = static_cast<int>(image.width);
    out.height = static_cast<int>(image.height);
    out.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.pixels.data(), 0, nullptr)) {
        ADD_FAILURE() << "cannot decode " << path << ": " << image.message;
        out = RgbImage{};
    }
    return out;
}

RgbImage loadSample(int index) {
    static const char *names[3] = {"0_dark.png", "1_mid.png", "2_bright.png"};
    return loadPngRgb(samplePath(std::string("belgium_house/") + names[index]));
}

}  // namespace testsupport
