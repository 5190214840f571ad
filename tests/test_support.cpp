#include "test_support.h"

#include <gtest/gtest.h>

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

}  // namespace testsupport
