// cli_support.cpp: see cli_support.h.
#include "cli_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <sstream>

#include <opencv2/imgproc.hpp>
#include <tiffio.h>

namespace fs = std::filesystem;
using namespace lumora_fuse;

namespace lumora_cli {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void spill(const std::string &path, const std::string &bytes) { std::ofstream(path, std::ios::binary) << bytes; }

Image load(const std::string &path) {
    Image image;
    std::string error;
    EXPECT_TRUE(readImage(path, image, error)) << path << ": " << error;
    return image;
}

void save(const std::string &path, const Image &image, int quality) {
    std::string error;
    ASSERT_TRUE(writeImage(path, formatFromExtension(path), image.width, image.height, 8, image.rgb.data(), quality,
                           error)) << error;
}

Image crop(const Image &in, int x0, int y0, int w, int h) {
    Image out{w, h, {}};
    for (int y = y0; y < y0 + h; ++y)
        out.rgb.insert(out.rgb.end(), in.rgb.begin() + (size_t(y) * in.width + x0) * 3,
                       in.rgb.begin() + (size_t(y) * in.width + x0 + w) * 3);
    return out;
}

Image scaled(const Image &in, int w, int h) {
    Image out{w, h, std::vector<unsigned char>(size_t(w) * h * 3)};
    const cv::Mat from(in.height, in.width, CV_8UC3, const_cast<unsigned char *>(in.rgb.data()));
    cv::Mat to(h, w, CV_8UC3, out.rgb.data());
    cv::resize(from, to, to.size(), 0, 0, cv::INTER_AREA);
    return out;
}

void writePng(const std::string &path, int w, int h, png_uint_32 format, const void *pixels,
              const std::vector<png_color> &palette) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = png_uint_32(w), image.height = png_uint_32(h), image.format = format;
    image.colormap_entries = png_uint_32(palette.size());
    ASSERT_TRUE(png_image_write_to_file(&image, path.c_str(), 0, pixels, 0, palette.data())) << image.message;
}

void writeTiff(const std::string &path, uint32_t w, uint32_t h, std::vector<unsigned char> rgba) {
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    const uint16_t extra[] = {EXTRASAMPLE_UNASSALPHA};
    TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(1), extra);
    for (auto [tag, value] : {std::pair<uint32_t, uint32_t>{TIFFTAG_IMAGEWIDTH, w}, {TIFFTAG_IMAGELENGTH, h},
                              {TIFFTAG_ROWSPERSTRIP, h}})
        TIFFSetField(tif, tag, value);
    for (auto [tag, value] : {std::pair<uint32_t, int>{TIFFTAG_SAMPLESPERPIXEL, 4}, {TIFFTAG_BITSPERSAMPLE, 8},
                              {TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB}, {TIFFTAG_COMPRESSION, COMPRESSION_LZW}})
        TIFFSetField(tif, tag, uint16_t(value));
    unsigned char byte = 0;  // without pixels, the one strip holds a single compressed byte
    EXPECT_GT(rgba.empty() ? TIFFWriteRawStrip(tif, 0, &byte, 1)
                           : TIFFWriteEncodedStrip(tif, 0, rgba.data(), tmsize_t(rgba.size())),
              0) << path;
    TIFFClose(tif);
}

double meanAbsDiff(const std::vector<unsigned char> &a, const std::vector<unsigned char> &b) {
    return std::transform_reduce(a.begin(), a.end(), b.begin(), 0.0, std::plus<>(),
                                 [](int x, int y) { return std::abs(x - y); }) / double(a.size());
}

const Image &sample(int i) {
    static const std::string dir = std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/";
    static const Image bracket[] = {load(dir + "0_dark.png"), load(dir + "1_mid.png"), load(dir + "2_bright.png")};
    return bracket[i];
}

void ToolTest::SetUp() {
    char name[] = "/tmp/lumora-cli-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir_ = name, errPath_ = dir_ + ".stderr", outPath_ = dir_ + ".stdout";
}

void ToolTest::TearDown() {
    for (const std::string &path : {dir_, errPath_, outPath_}) fs::remove_all(path);
}

std::string ToolTest::expand(std::string text) const {
    for (size_t p; (p = text.find('@')) != std::string::npos;) text.replace(p, 1, dir_ + "/");
    std::replace(text.begin(), text.end(), '%', '@');
    return text;
}

std::set<std::string> ToolTest::listing(const std::string &folder) const {
    std::set<std::string> names;
    for (const auto &entry : fs::directory_iterator(at(folder))) names.insert(entry.path().filename().string());
    return names;
}

pid_t ToolTest::start(const std::string &line, const Launch &how) const {
    // Everything the child needs is made before the fork.
    std::vector<std::string> words{LUMORA_FUSE_BINARY};
    std::istringstream split(expand(line));
    words.insert(words.end(), std::istream_iterator<std::string>(split), {});
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    // Both files are emptied before the tool starts, not when it gets to it.
    const int outFd = open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int errFd = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const pid_t pid = fork();
    if (pid == 0) {
        if (how.resource >= 0) {
            const rlimit lowered{how.limit, how.limit};
            setrlimit(__rlimit_resource(how.resource), &lowered);
            signal(SIGXFSZ, SIG_IGN);
        }
        dup2(outFd, 1);
        dup2(errFd, 2);
        execv(LUMORA_FUSE_BINARY, argv.data());
        _exit(127);
    }
    close(outFd), close(errFd);
    EXPECT_GT(pid, 0);
    return pid;
}

ToolRun ToolTest::finish(pid_t pid, long *maxRssKib) const {
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    if (maxRssKib) *maxRssKib = usage.ru_maxrss;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(outPath_), slurp(errPath_)};
}

}  // namespace lumora_cli
