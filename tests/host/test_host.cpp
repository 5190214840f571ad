// The default host's JPEG writer and its failure reports. Its HSL
// conversions run on every output pixel of the whole-fusion goldens, which
// pin them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "Lumora32.h"

namespace {

int writeJpeg(const std::string &path, int width, int height, std::vector<unsigned char> &px) {
    int saveInfos[14] = {width, height, 3, 8, 100, 100};
    return HXwritejpg(path.c_str(), 90, saveInfos, width * 3, 0, 0, nullptr, 0, nullptr, 0,
                      nullptr, px.data());
}

}  // namespace

TEST(HostJpeg, WriterReportsFailureInsteadOfExiting) {
    std::vector<unsigned char> px(4 * 4 * 3, 128), wide(70000 * 3, 128);
    EXPECT_EQ(writeJpeg("/nonexistent-dir/x.jpg", 4, 4, px), -1);
    // Too wide for JPEG: libjpeg raises an error after the file is created.
    const std::string path = testing::TempDir() + "lumora-" + std::to_string(getpid()) + ".jpg";
    EXPECT_EQ(writeJpeg(path, 70000, 1, wide), -1);
    EXPECT_FALSE(std::filesystem::exists(path));  // the partial file is removed
    EXPECT_EQ(writeJpeg(path, 4, 4, px), 0);
    EXPECT_GT(std::filesystem::file_size(path), 0u);
    std::filesystem::remove(path);
}

